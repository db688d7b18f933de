#include "vtd/explain/Evidence.h"

#include <utility>

#include "Velto/VTInfoKeys.h"
#include "platform/bundle/Bundle.h"
#include "platform/effort/Effort.h"
#include "platform/entitlements/Entitlements.h"
#include "platform/paths/Paths.h"
#include "platform/prefs/Preferences.h"
#include "platform/restrictions/Restrictions.h"
#include "platform/text/Format.h"
#include "vtd/Exclusions.h"
#include "vtd/Host.h"
#include "vtd/VTDUserPrefs.h"

namespace explain {

namespace {

constexpr std::size_t kLongest = 256;   // bytes of a text
constexpr std::size_t kMostListed = 5;  // elements of a list
constexpr std::string_view kEntitlementRule = "ENTITLEMENT:";

void list(std::string& words, std::size_t place, std::size_t count, const std::string& element) {
    if (place < kMostListed) words += (place > 0 ? ", " : "") + element;
    if (place == kMostListed) words += text::format(" and {} more", count - kMostListed);
}

std::string brief(const std::optional<value::Value>& value) {
    if (!value) return "nothing";
    if (const std::string* text = value->string()) return explain::brief(*text);
    if (const value::Dictionary* entries = value->dictionary()) {
        return text::format("a dictionary of {} entries", entries->size());
    }
    const value::Array* const elements = value->array();
    if (elements == nullptr) return explain::brief(value::description(*value));
    if (elements->size() == 0) return "an empty list";
    std::string words;
    std::size_t place = 0;
    for (const value::Value& element : *elements) {
        if (place <= kMostListed) list(words, place, elements->size(), brief(std::optional{element}));
        ++place;
    }
    return explain::brief(std::move(words));
}

std::string demandOf(const rules::Rules& rules, const rules::Rules::Rule& rule) {
    switch (rule.demand) {
        case rules::Demand::truth: return "anything that is not false";
        case rules::Demand::falsity: return "nothing, or false";
        case rules::Demand::items: return "an activation rule that accepts the items";
        case rules::Demand::nothing: return "what no plug-in can have";
        case rules::Demand::patterns: break;
    }
    const auto patterns = rules.patterns(rule);
    std::string words;
    for (std::size_t place = 0; place < patterns.size() && place <= kMostListed; ++place) {
        list(words, place, patterns.size(), explain::brief(std::string{patterns[place].text()}));
    }
    return patterns.empty() ? "what no plug-in can have" : explain::brief(std::move(words));
}

// The path of a key of the plug-in's own dictionary, in its bundle's Info.plist or what its extension point adds.
std::string keyOf(const VTDPlugIn& plugIn, std::string_view key) {
    std::string path = VTInfoKey::extension;
    if (plugIn.identifier() != plugIn.originalIdentifier()) {
        path += text::format(".{}.{}", VTInfoKey::multiple, plugIn.identifier());
    }
    return brief(text::format("{}.{}", path, key));
}

std::string fileIn(const std::string& bundle, std::string_view name) {
    return text::format("{}/{}", bundle, name);
}

void tellRule(Evidence& evidence, const rules::Rules& rules, const rules::Rules::Rule& rule, const VTDPlugIn& plugIn) {
    evidence.rule = brief(std::string{rule.name});
    evidence.wanted = demandOf(rules, rule);
    evidence.found = brief(plugIn.valueFor(rule));
    switch (rule.attribute) {
        case rules::Attribute::entitlement:
            evidence.file = fileIn(plugIn.path(), entitlements::kFile);
            evidence.key = brief(std::string{rule.name.substr(kEntitlementRule.size())});
            break;
        case rules::Attribute::identifier:
            evidence.file = fileIn(plugIn.path(), bundle::kInfoFile);
            evidence.key = plugIn.identifier() == plugIn.originalIdentifier()
                               ? bundle::kIdentifierKey
                               : text::format("{}.{}", VTInfoKey::extension, VTInfoKey::multiple);
            break;
        case rules::Attribute::other:
            evidence.file = fileIn(plugIn.path(), bundle::kInfoFile);
            evidence.key = keyOf(plugIn, text::format("{}.{}", VTInfoKey::attributes, rule.name));
            break;
        case rules::Attribute::uuid:
        case rules::Attribute::election:
        case rules::Attribute::containingApplication: break;  // in no file of the bundle
    }
}

void tellLocation(Evidence& evidence, const VTDPlugIn& plugIn) {
    evidence.wanted = plugIn.containingUrl() ? "a place on the system volume, as the flags ask"
                                             : "an application around it, or a place on the system volume";
    evidence.found = plugIn.path();
}

void tellDedication(Evidence& evidence, const gates::Visit& visit) {
    const auto own = visit.query.clientPlugInsPath ? visit.query.clientPlugInsPath() : std::nullopt;
    evidence.wanted = own ? text::format("a plug-in in {}", *own) : "a host with plug-ins of its own";
    evidence.found = visit.candidate.path();
    evidence.file = fileIn(visit.candidate.path(), bundle::kInfoFile);
    evidence.key = keyOf(visit.candidate, VTInfoKey::dedicated);
}

void tellExclusion(Evidence& evidence, const gates::Visit& visit) {
    const std::size_t place = visit.query.exclusions->covering(visit.candidate, visit.complaints);
    if (place == Exclusions::kNone) return;
    const rules::Rules& exclusion = (*visit.query.exclusions)[place];
    evidence.exclusion = place + 1;
    evidence.file = prefs::pathOf(kUserPrefsDomain);
    evidence.key = text::format("{}.{}", kExclusionsKey, place);
    std::size_t at = 0;
    for (const auto& rule : exclusion.rules()) {
        const std::string words = text::format("{}: {}", rule.name, demandOf(exclusion, rule));
        if (at <= kMostListed) list(evidence.found, at, exclusion.rules().size(), brief(words));
        ++at;
    }
    evidence.found = at == 0 ? "whatever there is" : brief(std::move(evidence.found));
}

void tellHost(Evidence& evidence, const gates::Visit& visit, const Sources& sources) {
    using Cause = VTDPlugIn::HostRefusal::Cause;
    const auto refusal = visit.query.refuseToClient(visit.candidate, visit.complaints);
    if (!refusal) return;
    const auto& bundle = sources.host.bundle();
    const auto hostPath = bundle ? bundle->path() : std::nullopt;
    const auto* const restriction = sources.host.restriction();
    switch (refusal->cause) {
        case Cause::restriction:
            if (restriction != nullptr && restriction->allowed && refusal->rule != nullptr) {
                tellRule(evidence, *restriction->allowed, *refusal->rule, visit.candidate);
            }
            [[fallthrough]];
        case Cause::badRestriction:
            evidence.entitlement = kAllowedPlugInsEntitlement;
            if (hostPath) evidence.file = fileIn(*hostPath, entitlements::kFile);
            evidence.key = kAllowedPlugInsEntitlement;
            if (refusal->cause == Cause::badRestriction) evidence.wanted = "a dictionary of rules";
            break;
        case Cause::entitlement:
            evidence.entitlement = brief(refusal->demanded);
            evidence.wanted = text::format("a host with the entitlement {}", evidence.entitlement);
            evidence.found = hostPath ? *hostPath : text::format("process {}", sources.host.pid());
            evidence.file = fileIn(visit.candidate.path(), bundle::kInfoFile);
            evidence.key = keyOf(visit.candidate, VTInfoKey::hostEntitlement);
            break;
        case Cause::ageRating:
            evidence.wanted = text::format("a rating of at most {}", sources.maximumRating.value_or(0));
            evidence.found = text::format("{}", visit.candidate.containerAgeRestriction());
            evidence.file = fileIn(paths::directories().config, restrictions::kFile);
            evidence.key = restrictions::kMaximumAppsRating;
            break;
    }
}

}  // namespace

std::string brief(std::string text) {
    if (text.size() <= kLongest) return text;
    std::size_t end = kLongest;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) --end;
    text.resize(end);
    return text + "...";
}

Evidence evidenceOf(const gates::Gate& gate, const gates::Visit& visit, const Sources& sources) {
    constexpr std::uint64_t kUnits = 2 * effort::kUnitsAMicrosecond;
    Evidence evidence;
    if (!effort::take(kUnits)) return evidence;
    switch (gate.name) {
        case gates::Name::location: tellLocation(evidence, visit.candidate); break;
        case gates::Name::dedication: tellDedication(evidence, visit); break;
        case gates::Name::holds:
            if (sources.isForAll && sources.holders) evidence.holders = sources.holders(visit.candidate);
            break;
        case gates::Name::rules: {
            const auto* const rule = visit.candidate.unmatchedRule(visit.query.wanted, visit.complaints);
            if (rule != nullptr) tellRule(evidence, visit.query.wanted, *rule, visit.candidate);
            break;
        }
        case gates::Name::exclusions:
            if (sources.isForAll) tellExclusion(evidence, visit);
            break;
        case gates::Name::host: tellHost(evidence, visit, sources); break;
        case gates::Name::exported: break;  // the reason has it all
        case gates::Name::duplicates:
            if (visit.admission.other != MatchList::kNone) evidence.other = &visit.matches[visit.admission.other];
            break;
    }
    return evidence;
}

}  // namespace explain
