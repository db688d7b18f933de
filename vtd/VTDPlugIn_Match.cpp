#include <charconv>
#include <compare>
#include <string>
#include <string_view>

#include "platform/activation/ActivationRule.h"
#include "platform/logging/Log.h"
#include "platform/text/Format.h"
#include "platform/text/NumericCompare.h"
#include "platform/types/TypeHierarchy.h"
#include "vtd/MatchEffort.h"
#include "vtd/VTDAnnotationSource.h"
#include "vtd/VTDPlugIn.h"

// The rule language: what a dictionary of attribute names and patterns means for one plug-in. Every candidate of every
// discovery passes here, so nothing is built for a rule that does not ask for it: a value is looked at where it lies.

namespace {

constexpr std::string_view kEntitlementPrefix = "ENTITLEMENT:";
constexpr std::string_view kConforms = "?ZT-CONFORMS:";
constexpr std::string_view kIs = "?ZT-IS:";

// What a comparison operator accepts of value against operand.
struct Comparison {
    std::string_view prefix;
    bool before, same, after;
};

// In the order in which they are tried, so that "<>" and "<=" are not read as "<".
constexpr Comparison kComparisons[] = {
    {"<>", true, false, true}, {"<=", true, true, false}, {">=", false, true, true},
    {"=", false, true, false}, {"<", true, false, false}, {">", false, false, true},
};
constexpr Comparison kPlain{"", false, true, false};

const Comparison& comparisonOf(std::string_view pattern) {
    for (const Comparison& comparison : kComparisons) {
        if (pattern.starts_with(comparison.prefix)) return comparison;
    }
    return kPlain;
}

// What the dearer steps cost, in units of MatchEffort.
constexpr std::uint64_t kEffortOfElection = 10;
constexpr std::uint64_t kEffortOfConformance = 50;
constexpr std::uint64_t kEffortOfLogLine = 1000;

std::uint64_t effortOfItems(const value::Dictionary& items) {
    std::uint64_t effort = 1;
    const value::Array* elements = items.array("items");
    if (elements == nullptr) return effort;
    for (const value::Value& item : *elements) {
        const value::Array* types = item.dictionary() == nullptr ? nullptr : item.dictionary()->array("types");
        effort += 1 + (types == nullptr ? 0 : types->size());
    }
    return effort;
}

bool isFalse(const value::Value& value) {
    return value == value::Value{false};
}

// The user's choice as rules see it: a signed 32-bit integer without its bits 8 to 15.
std::int32_t electionOf(const std::optional<value::Dictionary>& annotation) {
    const value::Value* election = annotation ? annotation->find("election") : nullptr;
    if (election == nullptr) return 0;
    return static_cast<std::int32_t>(election->integerValue().value_or(0)) & ~0xFF00;
}

}  // namespace

bool VTDPlugIn::match(const std::optional<value::Dictionary>& rules) const {
    return !rules || unmatchedRule(*rules) == nullptr;
}

const value::Dictionary::Entry* VTDPlugIn::unmatchedRule(const value::Dictionary& rules) const {
    for (const value::Dictionary::Entry& rule : rules) {
        if (!matchKey(rule.key, rule.value)) return &rule;
    }
    return nullptr;
}

bool VTDPlugIn::matchKey(std::string_view name, const value::Value& pattern) const {
    if (!MatchEffort::take(1)) return false;
    if (name.starts_with(kEntitlementPrefix)) {
        const auto value = valueForEntitlement(name.substr(kEntitlementPrefix.size()));
        return matchAny(value ? &*value : nullptr, pattern);
    }
    if (name == "KXExtensionIdentifier") return matchText(identifier(), pattern);
    if (name == "halvern.uuid") return matchText(uuid().string(), pattern);
    if (name == "KXUserElection") {
        if (!MatchEffort::take(kEffortOfElection)) return false;
        const auto source = annotationSource_.load().lock();
        char digits[12];
        const auto written = std::to_chars(std::begin(digits), std::end(digits),
                                           electionOf(source ? source->annotationForPlugIn(*this) : std::nullopt));
        return matchText({digits, static_cast<std::size_t>(written.ptr - digits)}, pattern);
    }
    if (name == "KXExtensionContainingApp") {
        const std::string path = containingPath();
        return !path.empty() && matchText(path, pattern);
    }
    const value::Dictionary own = attributes();
    if (const value::Value* found = own.find(name)) return matchAny(found, pattern);
    const value::Dictionary info = bundleInfoDictionary();
    return matchAny(info.find(name), pattern);
}

// A value of any kind, or none, met with a pattern.
bool VTDPlugIn::matchAny(const value::Value* value, const value::Value& pattern) const {
    if (value != nullptr && value->string() != nullptr) return matchText(*value->string(), pattern);
    if (pattern.isNumber()) {
        if (pattern == value::Value{true}) return value != nullptr && !isFalse(*value);
        if (isFalse(pattern)) return value == nullptr || isFalse(*value);
    }
    if (value == nullptr) return false;
    if (const value::Dictionary* items = pattern.dictionary()) return matchDictionary(*value, *items);
    if (const value::Array* elements = value->array()) {
        for (const value::Value& element : *elements) {
            if (!MatchEffort::take(1)) return false;
            if (element.string() != nullptr && matchValuePatterns(*element.string(), pattern)) return true;
        }
    }
    return false;
}

// A value that is a text: always present, never equal to false.
bool VTDPlugIn::matchText(std::string_view value, const value::Value& pattern) const {
    if (pattern.isNumber()) return pattern == value::Value{true};
    if (const value::Dictionary* items = pattern.dictionary()) return matchDictionary(value, *items);
    return matchValuePatterns(value, pattern);
}

bool VTDPlugIn::matchValuePatterns(std::string_view value, const value::Value& patterns) const {
    if (const std::string* pattern = patterns.string()) return matchValuePattern(value, *pattern);
    if (const value::Array* elements = patterns.array()) {
        for (const value::Value& element : *elements) {
            if (!MatchEffort::take(1)) return false;
            if (element.string() != nullptr && matchValuePattern(value, *element.string())) return true;
        }
    }
    return false;
}

bool VTDPlugIn::matchValuePattern(std::string_view value, std::string_view pattern) const {
    if (!MatchEffort::take(MatchEffort::ofTexts(value.size(), pattern.size()))) return false;
    if (pattern.starts_with('?')) {
        const bool conforms = pattern.starts_with(kConforms);
        const bool is = pattern.starts_with(kIs);
        if (!MatchEffort::take(conforms || is ? kEffortOfConformance : kEffortOfLogLine)) return false;
        if (conforms) return types::conforms(value, pattern.substr(kConforms.size()));
        if (is) return types::conforms(pattern.substr(kIs.size()), value);
        logging::notice(text::format("unrecognized match operator:{}", pattern));
        return false;
    }
    const Comparison& comparison = comparisonOf(pattern);
    const std::weak_ordering order = text::compareNumerically(value, pattern.substr(comparison.prefix.size()));
    if (order == std::weak_ordering::less) return comparison.before;
    return order == std::weak_ordering::greater ? comparison.after : comparison.same;
}

bool VTDPlugIn::matchDictionary(const value::Value& rule, const value::Dictionary& items) const {
    return MatchEffort::take(effortOfItems(items)) && activation::evaluate(rule, items);
}
