#include "vtd/Discovery.h"

#include <utility>

#include "Velto/VTProtocol.h"
#include "platform/logging/Log.h"
#include "platform/text/Format.h"
#include "vtd/Exclusions.h"
#include "vtd/VTDPlugIn.h"

// A candidate on its way through the gates.
struct Discovery::Visit {
    const VTDPlugIn& candidate;
    const Query& query;
    MatchList& matches;
    const MatchEffort& effort;
    std::optional<VTForm> form;  // once the candidate has been exported

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
        const value::Dictionary::Entry* rule = visit.candidate.unmatchedRule(visit.query.rules);
        if (rule == nullptr) return {};
        return Reason{"does not match the rule", rule->key};
    }

    static Verdict exclusions(Visit& visit) {
        if (!visit.query.exclusions || !visit.query.exclusions->cover(visit.candidate)) return {};
        return Reason{"is excluded by the user"};
    }

    static Verdict hostAuthorization(Visit& visit) {
        auto refusal = visit.query.refuseToClient ? visit.query.refuseToClient(visit.candidate) : std::nullopt;
        if (!refusal) return {};
        return Reason{"may not be used by the client", *std::move(refusal)};
    }

    // Behind all that meets patterns: what was decided with nothing left to spend was not decided.
    static Verdict effort(Visit& visit) {
        if (!visit.effort.isSpent()) return {};
        return Reason{"came when all effort was spent"};
    }

    static Verdict exported(Visit& visit) {
        std::optional<value::Error> error;
        visit.form = visit.candidate.exportForm(&error);
        if (error) {
            logging::notice(
                text::format("error matching {}: {}", visit.candidate.path(), error->localizedDescription()));
        }
        if (visit.form) return {};
        return Reason{"has no form", error ? error->localizedDescription() : std::string{}};
    }

    static Verdict duplicates(Visit& visit) {
        if (visit.matches.admits(*visit.form)) return {};
        return Reason{"is superseded by another copy"};
    }

    static constexpr Gate kInOrder[] = {
        {"location", Gate::Scope::unlessAll, location},      //
        {"dedication", Gate::Scope::unlessAll, dedication},  //
        {"holds", Gate::Scope::unlessAll, holds},            //
        {"rules", Gate::Scope::always, rules},               //
        {kExclusionsGate, Gate::Scope::always, exclusions},
        {kHostGate, Gate::Scope::unlessAll, hostAuthorization},
        {"effort", Gate::Scope::always, effort},
        {"export", Gate::Scope::always, exported},        //
        {"duplicates", Gate::Scope::always, duplicates},  //
    };
};

Discovery::Discovery(Query query, Annotate annotate)
    : query_{std::move(query)}, annotate_{std::move(annotate)}, matches_{query_.flags} {}

std::optional<Discovery::Refusal> Discovery::visit(const VTDPlugIn& candidate) {
    Visit visit{candidate, query_, matches_, effort_, {}};
    for (const Gate& gate : Gates::kInOrder) {
        if (gate.scope == Gate::Scope::unlessAll && visit.asksFor(VTDiscoverAll)) continue;
        if (auto reason = gate.examine(visit)) return Refusal{gate.name, reason->text, std::move(reason->detail)};
    }
    annotate_(candidate, *visit.form);
    candidate.augmentForm(*visit.form);
    const auto replacePlugIn = candidate.valueForEntitlement(kReplacePlugInEntitlement);
    matches_.append(*std::move(visit.form), replacePlugIn ? &*replacePlugIn : nullptr);
    return {};
}

std::vector<VTForm> Discovery::finish() && {
    return std::move(matches_).finish();
}
