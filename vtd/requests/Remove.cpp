#include <vector>

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
    constexpr std::size_t kAtOnce = 256;  // as one change
    std::vector<dravo::Removal> bundles;
    std::vector<bool> areResolved;
    const auto removeAll = [&] {
        const auto failure = server()->removePlugIn(bundles);
        const std::size_t asked = failure ? failure->place + 1 : bundles.size();
        for (std::size_t i = 0; i < asked; ++i) probes::pluginRemove(bundles[i].path, areResolved[i]);
        if (!failure) {
            bundles.clear();
            areResolved.clear();
            return true;
        }
        fail(VTErrorPath, text::format("no plugin at {}", bundles[failure->place].path));
        return false;
    };
    std::size_t element = 0;
    processPaths(
        [&](const std::string& path, bool resolved) {
            bundles.push_back({path, (*paths_)[element++].former});
            areResolved.push_back(resolved);
            return bundles.size() < kAtOnce || removeAll();
        },
        removeAll);
}
