#include <string>
#include <unordered_set>
#include <vector>

#include "Velto/VTProtocol.h"
#include "platform/dravo/Dravo.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/text/Format.h"
#include "vtd/Probes.h"
#include "vtd/RequestPaths.h"
#include "vtd/Transaction.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDServer.h"

void Transaction::addPlugIns() {
    constexpr std::size_t kAtOnce = 256;  // as one change, which takes time for whatever is installed
    const dravo::Registrant registrant{[this] {
        const auto peer = connection();
        return !peer || sandbox::isSandboxed(*peer->identity());
    }};
    std::vector<dravo::Registration> bundles;
    const auto registerAll = [&] {
        const auto failure = server()->addPlugIn(bundles, registrant);
        const std::size_t asked = failure ? failure->place + 1 : bundles.size();
        for (std::size_t i = 0; i < asked; ++i) probes::pluginAdd(bundles[i].path);
        if (!failure) {
            bundles.clear();
            return mayGoOn();
        }
        if (!mayGoOn()) return false;  // those before are registered
        const std::string& path = bundles[failure->place].path;
        server()->log("failed to register plug-in at {}", path);
        fail(VTErrorRegistry, text::format("unable to register plug-in at {}", path));
        return false;
    };
    std::unordered_set<std::string> named;
    std::size_t element = 0;
    processPaths(
        [&](const std::string& path, bool resolved) {
            const auto& files = (*paths_)[element++].files;
            if (!resolved) {
                if (registerAll()) fail(VTErrorPath, text::format("invalid plugin path: {}", path));
                return false;
            }
            if (named.insert(path).second) bundles.push_back({path, files});
            return bundles.size() < kAtOnce || registerAll();
        },
        registerAll);
}
