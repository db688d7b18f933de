#include "Velto/VTProtocol.h"
#include "platform/text/Format.h"
#include "vtd/Probes.h"
#include "vtd/RequestPaths.h"
#include "vtd/Transaction.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDServer.h"

// A bundle that is gone from the disk can still be unregistered: its path is passed on as sent, and then as the place
// where it would lie.
void Transaction::removePlugIns() {
    std::size_t element = 0;
    processPaths([&](const std::string& path, bool resolved) {
        probes::pluginRemove(path, resolved);
        const auto& former = (*paths_)[element++].former;
        if (!server()->removePlugIn(path) || (former && !server()->removePlugIn(*former))) return true;
        fail(VTErrorPath, text::format("no plugin at {}", path));
        return false;
    });
}
