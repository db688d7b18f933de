#include "vtd/Discovery.h"

#include <algorithm>
#include <utility>

#include "Velto/VTProtocol.h"
#include "platform/logging/Log.h"
#include "platform/text/Format.h"
#include "vtd/Exclusions.h"
#include "vtd/VTDPlugIn.h"

namespace {

// For the tokens of what candidates share with their hosts, which the client's rules do not ask for: so much for all of
// them together, in equal parts, and as much for each as honest ones need.
constexpr std::uint64_t kTokensInAll = effort::kLimit / 4;
constexpr std::uint64_t kTokensAtLeast = 2 * effort::kShare;

}  // namespace

// A candidate on its way through the gates.
struct Discovery::Visit {
    const VTDPlugIn& candidate;
    const Query& query;
    MatchList& matches;
    rules::Complaints& complaints;
    std::size_t& leftOut;
    const std::uint64_t shareForTokens;
    std::optional<VTForm> form;  // once the candidate has been exported
    std::optional<value::Value> replacePlugIn;
    bool sharesTooMuch = false;

    bool asksFor(std::uint64_t flag) const { return (query.flags & flag) != 0; }
};

struct Discovery::Gate {
    // Whether VTDiscoverAll leaves the gate out.
    enum class Scope { always, unlessAll };

    struct Reason {
        std::string_view text;
        std::string detail = {};
    };
    using Verdict = std::optional<Reason>;  // nothing: pass

    std::string_view name;
    Scope scope;
    Verdict (*examine)(Visit& visit);
};

struct Discovery::Gates {
    using Verdict = Gate::Verdict;
    using Reason = Gate::Reason;

    static Verdict location(Visit& visit) {
        if (visit.candidate.onSystemVolume()) return {};
        if (!visit.candidate.containingUrl()) return Reason{"has no containing application"};
        if (visit.asksFor(VTDiscoverSystemVolumeOnly)) return Reason{"is not on the system volume"};
        return {};
    }

    // A client without plug-ins of its own has nothing that a dedicated plug-in could be part of.
    static Verdict dedication(Visit& visit) {
        if (!visit.candidate.isDedicated()) return {};
        const auto own = visit.query.clientPlugInsPath ? visit.query.clientPlugInsPath() : std::nullopt;
        if (own && !own->empty() && visit.candidate.path().starts_with(*own)) return {};
        return Reason{"is dedicated to another application"};
    }

    static Verdict holds(Visit& visit) {
        if (!visit.query.isOnHold || !visit.query.isOnHold(visit.candidate)) return {};
        return Reason{"is on hold"};
    }

    static Verdict rules(Visit& visit) {
        const auto* const rule = visit.candidate.unmatchedRule(visit.query.wanted, visit.complaints);
        if (rule == nullptr) return {};
        return Reason{"does not match the rule", std::string{rule->name}};
    }

    static Verdict exclusions(Visit& visit) {
        if (!visit.query.exclusions || !visit.query.exclusions->cover(visit.candidate, visit.complaints)) {
            return {};
        }
        return Reason{"is excluded by the user"};
    }

    static Verdict hostAuthorization(Visit& visit) {
        auto refusal =
            visit.query.refuseToClient ? visit.query.refuseToClient(visit.candidate, visit.complaints) : std::nullopt;
        if (!refusal) return {};
        return Reason{"may not be used by the client", *std::move(refusal)};
    }

    static Verdict exported(Visit& visit) {
        const Reason kFull{"would make the reply too large"};
        if (visit.leftOut > 0) {
            ++visit.leftOut;
            return kFull;
        }
        std::optional<value::Error> error;
        visit.form = visit.candidate.exportForm(&error);
        if (error) {
            logging::notice(
                text::format("error matching {}: {}", visit.candidate.path(), error->localizedDescription()));
        }
        if (visit.form && visit.matches.encodedBytes() + visit.form->encodedSizeHint() > visit.query.mostEncodedBytes) {
            ++visit.leftOut;
            return kFull;
        }
        // Judged before the next gate, which makes older copies go.
        visit.sharesTooMuch = visit.candidate.priceOfTokens() > visit.shareForTokens;
        visit.replacePlugIn = visit.candidate.valueForEntitlement(kReplacePlugInEntitlement);
        static_cast<void>(effort::take(MatchList::priceOf(visit.replacePlugIn)));
        if (visit.form) return {};
        return Reason{"has no form", error ? error->localizedDescription() : std::string{}};
    }

    static Verdict duplicates(Visit& visit) {
        if (visit.matches.makeWayFor(*visit.form)) return {};
        return Reason{"is superseded by another copy"};
    }

    static constexpr Gate kInOrder[] = {
        {"location", Gate::Scope::unlessAll, location},      //
        {"dedication", Gate::Scope::unlessAll, dedication},  //
        {"holds", Gate::Scope::unlessAll, holds},            //
        {"rules", Gate::Scope::always, rules},               //
        {kExclusionsGate, Gate::Scope::always, exclusions},
        {kHostGate, Gate::Scope::unlessAll, hostAuthorization},
        {"export", Gate::Scope::always, exported},        //
        {"duplicates", Gate::Scope::always, duplicates},  //
    };
};

Discovery::Discovery(Query query, Annotate annotate, effort::Account& account)
    : query_{std::move(query)},
      annotate_{std::move(annotate)},
      priceOfRules_{query_.wanted.price() + query_.priceOfPolicy},
      account_{account},
      matches_{query_.flags} {}

bool Discovery::isAffordable(std::size_t candidates) {
    const std::uint64_t left = account_.left();  // without the shares, which are the candidates' own
    account_.grantShares(candidates);
    // What the user excludes is no choice of the client's, and is on the house.
    if (query_.exclusions) account_.grantShares(candidates * query_.exclusions->price() / effort::kShare);
    if (candidates == 0) return true;
    shareForTokens_ = std::max(kTokensInAll / candidates, kTokensAtLeast);
    return priceOfRules_ <= left / candidates;
}

std::optional<Discovery::Refusal> Discovery::visit(const VTDPlugIn& candidate) {
    const std::uint64_t exclusions = query_.exclusions ? query_.exclusions->price() : 0;
    const auto tooMuch = [] { return Refusal{kEffortGate, "needs more effort than one may", {}}; };
    effort::Account own{account_, effort::kShare + priceOfRules_ + exclusions};
    const effort::Charging charging{own};
    Visit visit{candidate, query_, matches_, complaints_, leftOut_, shareForTokens_, {}, {}};
    for (const Gate& gate : Gates::kInOrder) {
        if (gate.scope == Gate::Scope::unlessAll && visit.asksFor(VTDiscoverAll)) continue;
        auto reason = gate.examine(visit);
        // What was decided with nothing left to spend was not decided.
        if (own.isSpent() || visit.sharesTooMuch) return tooMuch();
        if (reason) return Refusal{gate.name, reason->text, std::move(reason->detail)};
    }
    annotate_(candidate, *visit.form);
    // What it may have for that comes from no account.
    effort::Account tokens{shareForTokens_};
    {
        const effort::Charging toTokens{tokens};
        candidate.augmentForm(*visit.form);
    }
    matches_.append(*std::move(visit.form), std::move(visit.replacePlugIn));
    return {};
}

std::vector<VTForm> Discovery::finish() && {
    complaints_.write();
    return std::move(matches_).finish();
}
