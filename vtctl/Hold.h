#pragma once

#include <string>
#include <vector>

#include "vtctl/ExitStatus.h"

// `vtctl hold [--app] PATH... [-- COMMAND [ARG...]]`: puts plug-ins on hold while a command runs, or until interrupted.
struct HoldOptions {
    std::string serviceName;
    std::vector<std::string> paths;  // of plug-ins, or of applications for all the plug-ins in them
    bool applications = false;
    std::vector<std::string> command;  // empty for none
};

int runHold(const HoldOptions& options);  // the command's exit status, or an ExitStatus

// `vtctl unhold TOKEN`: whoever knows a token can release its hold. A token of none is released for nothing.
ExitStatus runUnhold(const std::string& serviceName, const std::string& token);
