#include "vtd/gates/Gates.h"

#include <utility>

#include "platform/effort/Effort.h"
#include "vtd/Exclusions.h"

namespace gates {

namespace {

using Verdict = std::optional<Reason>;

Verdict location(Visit& visit) {
    if (visit.candidate.onSystemVolume()) return {};
    if (!visit.candidate.containingUrl()) return Reason{"has no containing application"};
    if (visit.query.asksFor(VTDiscoverSystemVolumeOnly)) return Reason{"is not on the system volume"};
    return {};
}

// A client without plug-ins of its own has nothing that a dedicated plug-in could be part of.
Verdict dedication(Visit& visit) {
    if (!visit.candidate.isDedicated()) return {};
    const auto own = visit.query.clientPlugInsPath ? visit.query.clientPlugInsPath() : std::nullopt;
    if (own && visit.candidate.path().starts_with(*own)) return {};
    return Reason{"is dedicated to another application"};
}

Verdict holds(Visit& visit) {
    if (!visit.query.isOnHold || !visit.query.isOnHold(visit.candidate)) return {};
    return Reason{"is on hold"};
}

Verdict rules(Visit& visit) {
    const auto* const rule = visit.candidate.unmatchedRule(visit.query.wanted, visit.complaints);
    if (rule == nullptr) return {};
    return Reason{"does not match the rule", std::string{rule->name}};
}

Verdict exclusions(Visit& visit) {
    if (!visit.query.exclusions || !visit.query.exclusions->cover(visit.candidate, visit.complaints)) return {};
    return Reason{"is excluded by the user"};
}

Verdict hostAuthorization(Visit& visit) {
    const auto refusal =
        visit.query.refuseToClient ? visit.query.refuseToClient(visit.candidate, visit.complaints) : std::nullopt;
    if (!refusal) return {};
    return Reason{"may not be used by the client", refusal->message()};
}

Verdict exported(Visit& visit) {
    constexpr std::string_view kFull = "would make the reply too large";
    if (visit.isFull) return Reason{kFull};
    visit.form = visit.candidate.exportForm(&visit.exportError);
    visit.isFull =
        visit.form && visit.matches.encodedBytes() + visit.form->encodedSizeHint() > visit.query.mostEncodedBytes;
    if (visit.isFull) return Reason{kFull};
    visit.sharesTooMuch = visit.candidate.priceOfTokens() > visit.shareForTokens;
    visit.replacePlugIn = visit.candidate.valueForEntitlement(kReplacePlugInEntitlement);
    static_cast<void>(effort::take(MatchList::priceOf(visit.replacePlugIn)));
    if (visit.form) return {};
    return Reason{"has no form", visit.exportError ? visit.exportError->localizedDescription() : std::string{}};
}

Verdict duplicates(Visit& visit) {
    visit.admission = visit.matches.judge(*visit.form);
    if (visit.admission.isAdmitted) return {};
    return Reason{"is superseded by another copy"};
}

}  // namespace

constexpr Gate kInOrder[kCount] = {
    {Name::location, "location", Gate::Scope::unlessAll, location},
    {Name::dedication, "dedication", Gate::Scope::unlessAll, dedication},
    {Name::holds, "holds", Gate::Scope::unlessAll, holds},
    {Name::rules, "rules", Gate::Scope::always, rules},
    {Name::exclusions, "exclusions", Gate::Scope::always, exclusions},
    {Name::host, "host authorization", Gate::Scope::unlessAll, hostAuthorization},
    {Name::exported, "export", Gate::Scope::always, exported},
    {Name::duplicates, "duplicates", Gate::Scope::always, duplicates},
};

}  // namespace gates
