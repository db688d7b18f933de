#pragma once

#include <string>
#include <vector>

// `vtctl ready PLUGIN... [-- COMMAND [ARG...]]`: has plug-ins made ready for this process, says what was registered for
// it and where, and stays until the command has ended or until interrupted. The registrations are this process's, and
// go with it; the command finds it as its parent.
struct ReadyOptions {
    std::string serviceName;
    std::vector<std::string> plugIns;
    std::vector<std::string> command;  // empty for none
    bool asJson = false;
};

int runReady(const ReadyOptions& options);  // the command's exit status, or an ExitStatus
