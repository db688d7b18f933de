#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Velto/VTDaemonClient.h"
#include "Velto/VTProtocol.h"
#include "platform/restrictions/Restrictions.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/text/Format.h"
#include "vtd/Discovery.h"
#include "vtd/Probes.h"
#include "vtd/RequestHost.h"
#include "vtd/Transaction.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/VTDServer.h"
#include "vtd/explain/Explanation.h"

namespace {

// Within what all processes together may have waiting, far above what any device has installed: reached only by bundles
// made to reach it.
constexpr std::size_t kMostEncodedBytes = std::size_t{240} << 20;

constexpr char kManagerEntitlement[] = "halvern.private.velto.manager";

// Who may be told of all that there is: it could read the same from the disk. A peer whose connection is gone cannot be
// asked about, and will not read the answer.
bool mayLearnAll(const VTDMoxClient& client) {
    const auto connection = client.connection();
    return connection && !sandbox::isSandboxed(*connection->identity());
}

// Who may see what its own location, dedication or holds would keep from it: a manager outside every sandbox.
bool maySeeAll(const VTDMoxClient& client) {
    return client.hasEntitlement(kManagerEntitlement) && mayLearnAll(client);
}

// What the log is told about a candidate that a gate held back: only where somebody may wonder.
void note(VTDServer& server, const VTDMoxClient& client, const VTDPlugIn& candidate,
          const Discovery::Refusal& refusal) {
    if (refusal.gate == nullptr) {
        server.noteCostlyPlugIn(candidate);
    } else if (refusal.isBy(gates::Name::exclusions)) {
        server.debug("client {} plugin {} excluded", client.pid(), candidate.identifier());
    } else if (refusal.isBy(gates::Name::host)) {
        server.debug("client {} cannot use plugin {}: {}", client.pid(), candidate.identifier(), refusal.reason.detail);
    }
}

// What is known of a discovery that is to be explained.
struct Explained {
    const VTDatabase::PlugIns& candidates;
    std::vector<std::optional<Discovery::Refusal>> refusals = {};  // of each, in their order
    std::vector<VTDatabase::LeftOut> leftOut = {};
};

// A sandboxed caller learns of its own application's plug-ins and of nothing else. Nothing: there is no room for it.
std::optional<mox::Encoded> explanationOf(Transaction& transaction, const Host& host, Discovery& discovery,
                                          const Explained& explained, std::optional<std::int64_t> maximumRating) {
    const VTDMoxClient& client = *transaction.client();
    const bool isForAll = mayLearnAll(client);
    const auto own = !isForAll && client.bundle() ? client.bundle()->plugInsPath() : std::nullopt;
    const auto isFor = [&](const std::string& path) { return isForAll || (own && path.starts_with(*own + '/')); };

    const auto holders = [&server = *transaction.server()](const VTDPlugIn& plugIn) {
        return server.holdersOf(plugIn);
    };
    explain::Explanation explanation{discovery, {host, maximumRating, holders, isForAll}, [&](std::size_t bytes) {
                                         return transaction.reply().reserve(bytes);
                                     }};
    for (std::size_t i = 0; i < explained.candidates.size(); ++i) {
        const VTDPlugIn& candidate = *explained.candidates[i];
        if (isFor(candidate.path())) explanation.add(candidate, explained.refusals[i]);
    }
    for (const VTDatabase::LeftOut& one : explained.leftOut) {
        if (isFor(one.record->bundlePath().value_or(""))) explanation.add(one);
    }
    if (explanation.isCut()) return {};
    return std::move(explanation).finish();
}

}  // namespace

void Transaction::matchPlugIns() {
    const auto rules = request().find(VTKey::rules);
    if (rules && !rules->isDictionary()) {
        return fail(VTErrorRequest, "invalid request format (bad rules dictionary)");
    }
    const auto explain = request().find(VTKey::explain);
    if (explain && !explain->boolean()) return fail(VTErrorRequest, "invalid request format (bad explain)");
    const bool isExplained = explain && *explain->boolean() && version() == VTProtocolVersion;
    if (isExplained && host_ && !isAnswerableForHost()) return;
    const Host& host = isExplained && host_ ? *host_->host() : client()->host();
    const auto flags = request().find(VTKey::flags);

    Discovery::Query query;
    query.mostEncodedBytes = kMostEncodedBytes;
    if (rules) query.wanted = rules::Rules{*rules};
    if (!mayGoOn()) return;
    if (flags) query.flags = flags->unsignedInteger().value_or(0);
    if ((query.flags & VTDiscoverAll) != 0 && !maySeeAll(*client())) {
        return fail(VTErrorAccess, "unauthorized discovery flag (VTDiscoverAll)");
    }
    if (const auto& bundle = host.bundle()) query.clientPlugInsPath = [bundle] { return bundle->plugInsPath(); };

    std::vector<VTDatabase::LeftOut> leftOut;
    search_.leftOut = isExplained ? &leftOut : nullptr;
    const auto found = server()->findPlugIns(query.wanted, search_);
    search_.leftOut = nullptr;
    isToGoOn_ = !search_.isOver;
    if (isToGoOn_) return;
    const VTDatabase::PlugIns candidates = found.value_or(VTDatabase::PlugIns{});
    probes::discoverRaw(candidates.size());
    std::optional<std::int64_t> maximumRating;
    if (!candidates.empty()) {  // what follows looks at the disk
        maximumRating = restrictions::maximumAppsRating();
        query.isOnHold = [this](const VTDPlugIn& plugIn) { return server()->holdOnPlugIn(plugIn); };
        query.exclusions = server()->userPrefs()->preparedExclusions();
        const auto* const restriction = host.restriction();
        if (restriction != nullptr && restriction->allowed) query.priceOfPolicy = restriction->allowed->price();
        query.refuseToClient = [&host, maximumRating](const VTDPlugIn& plugIn, rules::Complaints& complaints) {
            return plugIn.refusalForHost(host, maximumRating, complaints);
        };
    }

    // An old client gets no matches: what nobody is sent is not gathered.
    const auto annotate = [this](const VTDPlugIn& plugIn, VTForm& form) {
        if (version() == VTProtocolVersion) addAnnotationForPlugIn(plugIn, form);
    };
    Discovery discovery{std::move(query), annotate, account()};
    if (!discovery.isAffordable(candidates.size(),
                                isExplained ? Discovery::Rounds::explained : Discovery::Rounds::one)) {
        failForEffort();
        return;
    }
    account().grantShares(leftOut.size());
    Explained explained{candidates, {}, std::move(leftOut)};
    for (const auto& candidate : candidates) {
        auto refusal = discovery.visit(*candidate);
        if (refusal) note(*server(), *client(), *candidate, *refusal);
        if (isExplained) explained.refusals.push_back(std::move(refusal));
    }
    if (!mayGoOn()) return;
    if (discovery.leftOut() > 0) {
        server()->log("{} matches left out of a reply: it would be larger than {} bytes", discovery.leftOut(),
                      kMostEncodedBytes);
    }
    if (!reply().reserve(discovery.encodedBytes())) {
        return fail(VTErrorRequest, "invalid request (too many replies are not read)");
    }
    if (isExplained) {
        auto explanations = explanationOf(*this, host, discovery, explained, maximumRating);
        if (!mayGoOn()) return;
        if (!explanations) return fail(VTErrorRequest, "invalid request (too many replies are not read)");
        reply().setEncoded(VTKey::explanations, *std::move(explanations));
    }
    const std::vector<VTForm> matches = std::move(discovery).finish();
    if (auto encoded = VTDaemonClient::convertToMox(matches, static_cast<std::int64_t>(version()))) {
        reply().setEncoded(VTKey::matches, *std::move(encoded));
    }
    done();
}

// A sandboxed client is not told whether there is such a host.
bool Transaction::isAnswerableForHost() {
    if (!host_->isWellFormed()) {
        fail(VTErrorRequest, "invalid request format (bad host)");
        return false;
    }
    if (host_->outcome() != RequestHost::Outcome::done) return failForEffort();
    if (host_->host() != nullptr && mayLearnAll(*client())) return true;
    fail(VTErrorPath, text::format("no such host: {}", host_->name()));
    return false;
}

void Transaction::addAnnotationForPlugIn(const VTDPlugIn& plugIn, VTForm& form) const {
    form.set(VTFormKey::annotations, server()->annotationForPlugIn(plugIn).value_or(value::Dictionary{}));
}
