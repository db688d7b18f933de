#include <utility>

#include "Velto/VTDaemonClient.h"
#include "Velto/VTProtocol.h"
#include "platform/sandbox/Sandbox.h"
#include "vtd/Discovery.h"
#include "vtd/Probes.h"
#include "vtd/Transaction.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/VTDServer.h"

namespace {

constexpr char kManagerEntitlement[] = "halvern.private.velto.manager";

// Who may see what its own location, dedication or holds would keep from it: a manager outside every sandbox. A peer
// whose connection is gone cannot be asked about, and will not read the answer.
bool maySeeAll(const VTDMoxClient& client) {
    if (!client.hasEntitlement(kManagerEntitlement)) return false;
    const auto connection = client.connection();
    return connection && !sandbox::isSandboxed(*connection->identity());
}

}  // namespace

void Transaction::matchPlugIns() {
    const auto rules = request().find(VTKey::rules);
    if (rules && !rules->isDictionary()) {
        return fail(VTErrorRequest, "invalid request format (bad rules dictionary)");
    }
    const auto flags = request().find(VTKey::flags);

    Discovery::Query query;
    if (rules) query.rules = *rules->toValue().dictionary();
    if (flags) query.flags = flags->unsignedInteger().value_or(0);
    if ((query.flags & VTDiscoverAll) != 0 && !maySeeAll(*client())) {
        return fail(VTErrorAccess, "unauthorized discovery flag (VTDiscoverAll)");
    }
    if (const auto& bundle = client()->bundle()) query.clientPlugInsPath = [bundle] { return bundle->plugInsPath(); };

    const VTDatabase::PlugIns candidates = server()->findPlugIns(query.rules).value_or(VTDatabase::PlugIns{});
    probes::discoverRaw(candidates.size());

    Discovery discovery{std::move(query),
                        [this](const VTDPlugIn& plugIn, VTForm& form) { addAnnotationForPlugIn(plugIn, form); }};
    for (const auto& candidate : candidates) discovery.visit(*candidate);

    const std::vector<VTForm> matches = std::move(discovery).finish();
    if (auto encoded = VTDaemonClient::convertToMox(matches, static_cast<std::int64_t>(version()))) {
        reply().setEncoded(VTKey::matches, *std::move(encoded));
    }
    done();
}

void Transaction::addAnnotationForPlugIn(const VTDPlugIn& plugIn, VTForm& form) const {
    form.set(VTFormKey::annotations, server()->annotationForPlugIn(plugIn).value_or(value::Dictionary{}));
}
