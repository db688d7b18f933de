#include <cstddef>
#include <utility>
#include <vector>

#include "Velto/VTDaemonClient.h"
#include "Velto/VTProtocol.h"
#include "platform/restrictions/Restrictions.h"
#include "platform/sandbox/Sandbox.h"
#include "vtd/Discovery.h"
#include "vtd/Probes.h"
#include "vtd/Transaction.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/VTDServer.h"

namespace {

// Within what all processes together may have waiting, far above what any device has installed: reached only by bundles
// made to reach it.
constexpr std::size_t kMostEncodedBytes = std::size_t{240} << 20;

constexpr char kManagerEntitlement[] = "halvern.private.velto.manager";

// Who may see what its own location, dedication or holds would keep from it: a manager outside every sandbox. A peer
// whose connection is gone cannot be asked about, and will not read the answer.
bool maySeeAll(const VTDMoxClient& client) {
    if (!client.hasEntitlement(kManagerEntitlement)) return false;
    const auto connection = client.connection();
    return connection && !sandbox::isSandboxed(*connection->identity());
}

// What is told about a candidate that a gate held back: only where somebody may wonder.
void explain(VTDServer& server, const VTDMoxClient& client, const VTDPlugIn& candidate,
             const Discovery::Refusal& refusal) {
    if (refusal.gate == Discovery::kEffortGate) {
        server.noteCostlyPlugIn(candidate);
    } else if (refusal.gate == Discovery::kExclusionsGate) {
        server.debug("client {} plugin {} excluded", client.pid(), candidate.identifier());
    } else if (refusal.gate == Discovery::kHostGate) {
        server.debug("client {} cannot use plugin {}: {}", client.pid(), candidate.identifier(), refusal.detail);
    }
}

}  // namespace

void Transaction::matchPlugIns() {
    const auto rules = request().find(VTKey::rules);
    if (rules && !rules->isDictionary()) {
        return fail(VTErrorRequest, "invalid request format (bad rules dictionary)");
    }
    const auto flags = request().find(VTKey::flags);

    Discovery::Query query;
    query.mostEncodedBytes = kMostEncodedBytes;
    if (rules) query.wanted = rules::Rules{*rules};
    if (!mayGoOn()) return;
    if (flags) query.flags = flags->unsignedInteger().value_or(0);
    if ((query.flags & VTDiscoverAll) != 0 && !maySeeAll(*client())) {
        return fail(VTErrorAccess, "unauthorized discovery flag (VTDiscoverAll)");
    }
    if (const auto& bundle = client()->bundle()) query.clientPlugInsPath = [bundle] { return bundle->plugInsPath(); };

    const auto found = server()->findPlugIns(query.wanted, search_);
    isToGoOn_ = !search_.isOver;
    if (isToGoOn_) return;
    const VTDatabase::PlugIns candidates = found.value_or(VTDatabase::PlugIns{});
    probes::discoverRaw(candidates.size());
    if (!candidates.empty()) {  // what follows looks at the disk
        query.isOnHold = [this](const VTDPlugIn& plugIn) { return server()->holdOnPlugIn(plugIn); };
        query.exclusions = server()->userPrefs()->preparedExclusions();
        const auto* const restriction = client()->restriction();
        if (restriction != nullptr && restriction->allowed) query.priceOfPolicy = restriction->allowed->price();
        query.refuseToClient = [&client = *client(), maximumRating = restrictions::maximumAppsRating()](
                                   const VTDPlugIn& plugIn, rules::Complaints& complaints) {
            return plugIn.allowForClient(client, maximumRating, complaints);
        };
    }

    // An old client gets no matches: what nobody is sent is not gathered.
    const auto annotate = [this](const VTDPlugIn& plugIn, VTForm& form) {
        if (version() == VTProtocolVersion) addAnnotationForPlugIn(plugIn, form);
    };
    Discovery discovery{std::move(query), annotate, account()};
    if (!discovery.isAffordable(candidates.size())) {
        failForEffort();
        return;
    }
    for (const auto& candidate : candidates) {
        const auto refusal = discovery.visit(*candidate);
        if (refusal) explain(*server(), *client(), *candidate, *refusal);
    }
    if (!mayGoOn()) return;
    if (discovery.leftOut() > 0) {
        server()->log("{} matches left out of a reply: it would be larger than {} bytes", discovery.leftOut(),
                      kMostEncodedBytes);
    }
    if (!reply().reserve(discovery.encodedBytes())) {
        return fail(VTErrorRequest, "invalid request (too many replies are not read)");
    }
    const std::vector<VTForm> matches = std::move(discovery).finish();
    if (auto encoded = VTDaemonClient::convertToMox(matches, static_cast<std::int64_t>(version()))) {
        reply().setEncoded(VTKey::matches, *std::move(encoded));
    }
    done();
}

void Transaction::addAnnotationForPlugIn(const VTDPlugIn& plugIn, VTForm& form) const {
    form.set(VTFormKey::annotations, server()->annotationForPlugIn(plugIn).value_or(value::Dictionary{}));
}
