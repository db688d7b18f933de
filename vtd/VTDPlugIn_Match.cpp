#include <charconv>
#include <string>
#include <string_view>

#include "platform/effort/Effort.h"
#include "vtd/VTDAnnotationSource.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/rules/Match.h"

// What the rule language (vtd/rules) is about: the values of one plug-in. Every candidate of every discovery passes
// here, so nothing is built for a rule that does not ask for it: a value is looked at where it lies.

namespace {

constexpr std::size_t kEntitlementPrefix = sizeof "ENTITLEMENT:" - 1;

constexpr std::uint64_t kUnitsAnElection = 10;

// The user's choice as rules see it: a signed 32-bit integer without its bits 8 to 15.
std::int32_t electionOf(const std::optional<value::Dictionary>& annotation) {
    const value::Value* election = annotation ? annotation->find("election") : nullptr;
    if (election == nullptr) return 0;
    return static_cast<std::int32_t>(election->integerValue().value_or(0)) & ~0xFF00;
}

// Rules of one pattern, under a name that no plug-in has a value of its own for.
rules::Rules rulesOf(const value::Value& pattern) {
    return rules::Rules{value::Dictionary{{"", pattern}}};
}

}  // namespace

bool VTDPlugIn::match(const std::optional<value::Dictionary>& rules) const {
    rules::Complaints complaints;
    return !rules || unmatchedRule(rules::Rules{*rules}, complaints) == nullptr;
}

const rules::Rules::Rule* VTDPlugIn::unmatchedRule(const rules::Rules& rules, rules::Complaints& complaints) const {
    for (const rules::Rules::Rule& rule : rules.rules()) {
        if (!effort::take(rules::kUnitsARule) || !isMet(rules, rule, complaints)) return &rule;
    }
    return nullptr;
}

bool VTDPlugIn::matchKey(std::string_view name, const value::Value& pattern) const {
    return match(value::Dictionary{{std::string{name}, pattern}});
}

bool VTDPlugIn::isMet(const rules::Rules& rules, const rules::Rules::Rule& rule, rules::Complaints& complaints) const {
    const auto byText = [&](std::string_view text) { return rules::isMetByText(rules, rule, text, complaints); };
    switch (rule.attribute) {
        case rules::Attribute::entitlement: {
            const auto value = valueForEntitlement(rule.name.substr(kEntitlementPrefix));
            return rules::isMet(rules, rule, value ? &*value : nullptr, complaints);
        }
        case rules::Attribute::identifier: return byText(identifier());
        case rules::Attribute::uuid: return byText(uuid().string());
        case rules::Attribute::election: {
            if (!effort::take(kUnitsAnElection)) return false;
            const auto source = annotationSource_.load().lock();
            char digits[12];
            const auto written = std::to_chars(std::begin(digits), std::end(digits),
                                               electionOf(source ? source->annotationForPlugIn(*this) : std::nullopt));
            return byText({digits, static_cast<std::size_t>(written.ptr - digits)});
        }
        case rules::Attribute::containingApplication: {
            const std::string path = containingPath();
            return !path.empty() && byText(path);
        }
        case rules::Attribute::other: break;
    }
    return withAttribute(rule.name, [&](auto found) { return rules::isMet(rules, rule, found, complaints); });
}

std::optional<value::Value> VTDPlugIn::valueFor(const rules::Rules::Rule& rule) const {
    switch (rule.attribute) {
        case rules::Attribute::entitlement: return valueForEntitlement(rule.name.substr(kEntitlementPrefix));
        case rules::Attribute::identifier: return identifier();
        case rules::Attribute::uuid: return uuid().string();
        case rules::Attribute::election: {
            const auto source = annotationSource_.load().lock();
            return std::to_string(electionOf(source ? source->annotationForPlugIn(*this) : std::nullopt));
        }
        case rules::Attribute::containingApplication: return containingUrl();
        case rules::Attribute::other: break;
    }
    struct Read {
        std::optional<value::Value> operator()(mox::View found) const { return found.toValue(); }
        std::optional<value::Value> operator()(const value::Value* found) const {
            return found != nullptr ? std::optional{*found} : std::nullopt;
        }
    };
    return withAttribute(rule.name, Read{});
}

bool VTDPlugIn::matchValuePatterns(std::string_view value, const value::Value& patterns) const {
    if (patterns.string() == nullptr && patterns.array() == nullptr) return false;
    rules::Complaints complaints;
    const rules::Rules rules = rulesOf(patterns);
    return rules::isMetByText(rules, rules.rules().front(), value, complaints);
}

bool VTDPlugIn::matchValuePattern(std::string_view value, std::string_view pattern) const {
    return matchValuePatterns(value, pattern);
}

bool VTDPlugIn::matchDictionary(const value::Value& rule, const value::Dictionary& items) const {
    return activation::evaluate(rule, items);
}
