#include "Velto/VTProtocol.h"
#include "platform/text/Format.h"
#include "vtd/Probes.h"
#include "vtd/Transaction.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDServer.h"

// A bundle that is gone from the disk can still be unregistered: its path is passed on as sent.
void Transaction::removePlugIns() {
    processPaths([this](const std::string& path, bool resolved) {
        probes::pluginRemove(path, resolved);
        if (!server()->removePlugIn(path)) return true;
        fail(VTErrorPath, text::format("no plugin at {}", path));
        return false;
    });
}
