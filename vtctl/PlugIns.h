#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Velto/VTDaemonClient.h"
#include "platform/value/Uuid.h"
#include "vtctl/ExitStatus.h"

// Plug-ins as people name them: by UUID, by identifier, or by a part of an identifier that no other plug-in has.
namespace plugins {

// One installed plug-in. Texts are as they came, from its bundle: terminal::shown() is for printing them. A plug-in
// that was named by its UUID and is not in what discovery shows has only that; the daemon knows whether there is one.
struct PlugIn {
    value::Uuid uuid;
    std::string identifier;
    std::string version;
    std::string name;
    std::string path;           // of its bundle
    std::int64_t election = 0;  // the user's, 0 for none

    std::string title() const;  // what to call it in a line for people
};

enum class Which {
    onePerIdentifier,  // what a host would be given
    allCopies,         // all that the user can choose about, every copy and version of an identifier
};

struct Resolution {
    ExitStatus status = ExitStatus::success;
    std::vector<PlugIn> plugIns;  // in the order of the words, each once; empty without success
    std::vector<PlugIn> others;   // all that discovery shows besides
};

// The plug-ins that the words name. An exact identifier wins over parts; with allCopies an identifier stands for all
// its copies. A word that names none, or several, is reported on standard error with what to do, and nothing is
// resolved.
Resolution resolve(VTDaemonClient& client, const std::string& serviceName, const std::vector<std::string>& words,
                   Which which);

std::vector<value::Uuid> uuidsOf(const std::vector<PlugIn>& plugIns);

}  // namespace plugins
