#include <string>
#include <unordered_set>

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
    const dravo::Registrant registrant{[this] {
        const auto peer = connection();
        return !peer || sandbox::isSandboxed(*peer->identity());
    }};
    std::unordered_set<std::string> added;
    std::size_t element = 0;
    processPaths([&](const std::string& path, bool resolved) {
        const auto& files = (*paths_)[element++].files;
        if (!resolved) {
            fail(VTErrorPath, text::format("invalid plugin path: {}", path));
            return false;
        }
        if (!added.insert(path).second) return true;
        probes::pluginAdd(path);
        if (!server()->addPlugIn(path, registrant, files)) return true;
        server()->log("failed to register plug-in at {}", path);
        fail(VTErrorRegistry, text::format("unable to register plug-in at {}", path));
        return false;
    });
}
