#include "vtctl/Elect.h"

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <set>
#include <utility>

#include "Velto/VTProtocol.h"
#include "vtctl/Connection.h"
#include "vtctl/PlugIns.h"
#include "vtctl/Terminal.h"

namespace {

const char* nameOf(Election election) {
    switch (election) {
        case Election::use: return "enabled";
        case Election::ignore: return "disabled";
        case Election::undecided: break;
    }
    return "left to the default";
}

// A request that changes nothing and is refused where one of the UUIDs is no plug-in's: "annotate" would have changed
// those before it.
ExitStatus checkUnlisted(VTDaemonClient& client, const std::string& serviceName,
                         const std::vector<plugins::PlugIn>& plugIns) {
    std::vector<value::Uuid> unlisted;
    for (const plugins::PlugIn& plugIn : plugIns) {
        if (plugIn.identifier.empty()) unlisted.push_back(plugIn.uuid);
    }
    if (unlisted.empty()) return ExitStatus::success;
    mox::Dictionary request = client.request(VTRequest::access);
    VTDaemonClient::set(request, unlisted);
    return sendAndReport(client, request, serviceName,
                         {{VTErrorRequest, "`vtctl match` shows the UUIDs there are; nothing was changed"}});
}

// A plug-in shares its election with what it replaces, which no form tells: what has changed besides is told. Copies
// of what was told already are no others.
void tellOthers(VTDaemonClient& client, const std::string& serviceName, const std::vector<plugins::PlugIn>& before,
                std::set<std::string> told, Election election) {
    const auto wanted = static_cast<std::int64_t>(election);
    const plugins::Resolution now = plugins::resolve(client, serviceName, {}, plugins::Which::allCopies);
    for (const plugins::PlugIn& plugIn : now.others) {
        const bool changed =
            plugIn.election == wanted && std::any_of(before.begin(), before.end(), [&](const plugins::PlugIn& earlier) {
                return earlier.uuid == plugIn.uuid && earlier.election != wanted;
            });
        if (changed && told.insert(plugIn.title()).second) {
            std::cout << plugIn.title() << ": " << nameOf(election) << " with it, as one replaces the other\n";
        }
    }
}

}  // namespace

ExitStatus runElect(const std::string& serviceName, const std::vector<std::string>& words, Election election) {
    VTDaemonClient client{serviceName};
    const auto [status, plugIns, others] = plugins::resolve(client, serviceName, words, plugins::Which::allCopies);
    if (status != ExitStatus::success) {
        if (status == ExitStatus::usage) terminal::complain("nothing was changed");
        return status;
    }
    if (const ExitStatus unlisted = checkUnlisted(client, serviceName, plugIns); unlisted != ExitStatus::success) {
        return unlisted;
    }
    mox::Dictionary request = client.request(VTRequest::annotate);
    VTDaemonClient::set(request, plugins::uuidsOf(plugIns));
    request.set(VTKey::annotations, value::Dictionary{{"election", static_cast<int>(election)}});
    const ExitStatus sent =
        sendAndReport(client, request, serviceName,
                      {{VTErrorRequest, "a plug-in was installed or removed just now: give the command again"}});
    if (sent != ExitStatus::success) return sent;
    std::set<std::string> told;
    for (const plugins::PlugIn& plugIn : plugIns) {
        if (told.insert(plugIn.title()).second) std::cout << plugIn.title() << ": " << nameOf(election) << "\n";
    }
    tellOthers(client, serviceName, others, std::move(told), election);
    return ExitStatus::success;
}
