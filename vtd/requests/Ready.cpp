#include <memory>
#include <vector>

#include "Velto/VTProtocol.h"
#include "platform/effort/Effort.h"
#include "platform/restrictions/Restrictions.h"
#include "platform/text/Format.h"
#include "vtd/Probes.h"
#include "vtd/Transaction.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/VTDServer.h"

// Every plug-in is checked before any is enabled: a request that names one refused plug-in enables none.
void Transaction::readyPlugIns() {
    std::vector<std::shared_ptr<VTDPlugIn>> allowed;  // each once, in the order in which they were named
    rules::Complaints complaints;
    const auto maximumRating = restrictions::maximumAppsRating();
    const auto refuse = [&](const VTDPlugIn& plugIn, const std::string& reason) {
        server()->debug("denied access to pid {} for plugin {}({}): {}", client()->pid(), plugIn.identifier(),
                        plugIn.uuid().string(), reason);
        complaints.write();
        fail(VTErrorAccess, text::format("access to plugin {} denied: {}", plugIn.identifier(), reason));
        return false;
    };
    const bool all = processUuidList([&](const std::shared_ptr<VTDPlugIn>& plugIn) {
        probes::pluginReady([&] { return plugIn->uuid().string(); });
        if (!mustBeCurrent(*plugIn)) return false;
        if (server()->holdOnPlugIn(*plugIn)) return refuse(*plugIn, "the plug-in is on hold");
        if (plugIn->isData()) return true;
        const auto reason = plugIn->refusalForHost(client()->host(), maximumRating, complaints);
        if (!mayGoOn()) return false;  // a verdict that nothing was left for is none
        if (reason) return refuse(*plugIn, reason->message());
        allowed.push_back(plugIn);
        return true;
    });
    if (!all) return;
    complaints.write();
    // Judged before the first is enabled.
    for (const auto& plugIn : allowed) static_cast<void>(account().take(plugIn->effortToEnable()));
    if (!mayGoOn()) return;
    for (const auto& plugIn : allowed) {
        const auto error = plugIn->enableForPid(client()->pid());
        if (error) return mustBeCurrent(*plugIn) ? fail(VTErrorRequest, *error) : void();
        // Its end may have been announced meanwhile, and what was registered withdrawn before this was.
        if (!mustBeCurrent(*plugIn)) return server()->removedPlugIns({plugIn->dvproxy()});
    }
    done();
}
