#include "vtd/rules/Rules.h"

#include <algorithm>
#include <utility>

#include "platform/effort/Effort.h"
#include "platform/text/NumericCompare.h"
#include "platform/text/NumericKey.h"

namespace rules {

namespace {

constexpr std::string_view kEntitlementPrefix = "ENTITLEMENT:";

// What a list has so few of is tried one after another, which is cheaper than to look up.
constexpr std::size_t kFewLiterals = 8;

// Prices, in units of effort.
constexpr std::uint64_t kUnitsToRead = 5;  // a rule or a pattern
constexpr std::uint64_t kUnitsToIndex = 10;
constexpr std::uint64_t kUnitsALookUp = 5;
constexpr std::uint64_t kUnitsAnElection = 10;

// The two kinds of sources, alike.
std::optional<std::string_view> textOf(const value::Value& value) {
    return value.string() != nullptr ? std::optional<std::string_view>{*value.string()} : std::nullopt;
}
std::optional<std::string_view> textOf(mox::View value) {
    return value.string();
}
std::optional<value::Value> numberOf(const value::Value& value) {
    return value.isNumber() ? std::optional{value} : std::nullopt;
}
std::optional<value::Value> numberOf(mox::View value) {
    const bool isNumber = value.boolean() || value.signedInteger() || value.unsignedInteger() || value.real();
    return isNumber ? std::optional{value.toValue()} : std::nullopt;
}
std::unique_ptr<const activation::Items> itemsOf(const value::Value& value) {
    const value::Dictionary* const items = value.dictionary();
    return items != nullptr ? std::make_unique<const activation::Items>(*items) : nullptr;
}
std::unique_ptr<const activation::Items> itemsOf(mox::View value) {
    return value.isDictionary() ? std::make_unique<const activation::Items>(value) : nullptr;
}
bool isArray(const value::Value& value) {
    return value.array() != nullptr;
}
bool isArray(mox::View value) {
    return value.isArray();
}
template <typename Visit>
void forEachElement(const value::Value& array, const Visit& visit) {
    for (const value::Value& element : *array.array()) visit(textOf(element));
}
template <typename Visit>
void forEachElement(mox::View array, const Visit& visit) {
    array.forEachElement([&visit](mox::View element) { visit(textOf(element.plain())); });
}

Attribute attributeNamed(std::string_view name) {
    if (name.starts_with(kEntitlementPrefix)) return Attribute::entitlement;
    if (name == kIdentifierAttribute) return Attribute::identifier;
    if (name == "halvern.uuid") return Attribute::uuid;
    if (name == kElectionAttribute) return Attribute::election;
    if (name == "KXExtensionContainingApp") return Attribute::containingApplication;
    return Attribute::other;
}

bool isSame(std::string_view one, std::string_view other) {
    return text::compareNumerically(one, other) == std::weak_ordering::equivalent;
}

}  // namespace

Rules::Rules(mox::View dictionary) {
    std::size_t patterns = 0;
    dictionary.forEachEntry([&patterns](std::string_view, mox::View pattern) {
        patterns += std::max<std::size_t>(pattern.plain().isArray() ? pattern.plain().count() : 1, 1);
    });
    rules_.reserve(dictionary.count());
    patterns_.reserve(patterns);
    dictionary.forEachEntry([this](std::string_view name, mox::View pattern) { add(name, pattern.plain()); });
    finish();
}

Rules::Rules(value::Dictionary dictionary) : kept_{std::move(dictionary)} {
    rules_.reserve(kept_.size());
    for (const value::Dictionary::Entry& entry : kept_) add(entry.key, entry.value);
    finish();
}

template <typename Source>
void Rules::add(std::string_view name, const Source& pattern) {
    static_cast<void>(effort::take(kUnitsToRead + effort::ofBytes(name.size())));
    Rule rule{name, attributeNamed(name), Demand::nothing, false, {}, {}, {}, {}};
    price_ += rule.attribute == Attribute::election ? kUnitsARule + kUnitsAnElection : kUnitsARule;
    if (const auto number = numberOf(pattern)) {
        const bool isTrue = *number == value::Value{true}, isFalse = *number == value::Value{false};
        rule.demand = isTrue ? Demand::truth : isFalse ? Demand::falsity : Demand::nothing;
    } else if (auto items = itemsOf(pattern)) {
        rule.demand = Demand::items;
        rule.patterns = {static_cast<std::uint32_t>(items_.size()), 0};
        price_ += items->price();
        items_.push_back(std::move(items));
    } else if (const auto text = textOf(pattern)) {
        addPatterns(rule, [&text](const auto& visit) { visit(text); });
    } else if (isArray(pattern)) {
        addPatterns(rule, [&pattern](const auto& visit) { forEachElement(pattern, visit); });
    }
    rules_.push_back(rule);
}

template <typename Texts>
void Rules::addPatterns(Rule& rule, const Texts& forEachText) {
    rule.demand = Demand::patterns;
    rule.patterns.first = static_cast<std::uint32_t>(patterns_.size());
    std::size_t literals = 0;
    forEachText([&](std::optional<std::string_view> text) {
        if (!text) {
            rule.hasOtherElements = true;
            return;
        }
        static_cast<void>(effort::take(kUnitsToRead));
        literals += patterns_.emplace_back(*text).isLiteral() ? 1 : 0;
    });
    rule.patterns.count = static_cast<std::uint32_t>(patterns_.size()) - rule.patterns.first;
    if (literals > kFewLiterals) indexLiterals(rule);

    const auto all = patterns(rule);
    const auto collect = [&](Rule::Range& range, const auto& belongs) {
        range.first = static_cast<std::uint32_t>(places_.size());
        for (std::uint32_t place = 0; place < all.size(); ++place) {
            if (!belongs(all[place])) continue;
            places_.push_back(place);
            price_ += all[place].price();
        }
        range.count = static_cast<std::uint32_t>(places_.size()) - range.first;
    };
    collect(rule.unknown, [](const Pattern& pattern) { return pattern.op() == Operator::unknown; });
    const bool areLookedUp = rule.literals.count > 0;
    collect(rule.tried, [areLookedUp](const Pattern& pattern) {
        return pattern.op() != Operator::unknown && !(areLookedUp && pattern.isLiteral());
    });
}

void Rules::indexLiterals(Rule& rule) {
    rule.literals.first = static_cast<std::uint32_t>(literals_.size());
    const auto all = patterns(rule);
    for (std::uint32_t place = 0; place < all.size(); ++place) {
        if (!all[place].isLiteral()) continue;
        static_cast<void>(effort::take(kUnitsToIndex + effort::ofBytes(all[place].operand().size())));
        literals_.push_back({text::numericHash(all[place].operand()), place});
    }
    // Of those that are the same only the first is ever found.
    const auto first = literals_.begin() + rule.literals.first;
    std::sort(first, literals_.end(), [](const Literal& a, const Literal& b) {
        return a.hash != b.hash ? a.hash < b.hash : a.place < b.place;
    });
    const auto end = std::unique(first, literals_.end(), [&all](const Literal& a, const Literal& b) {
        return a.hash == b.hash && isSame(all[a.place].operand(), all[b.place].operand());
    });
    literals_.erase(end, literals_.end());
    rule.literals.count = static_cast<std::uint32_t>(literals_.size()) - rule.literals.first;
    price_ += kUnitsALookUp;
}

void Rules::finish() {
    const auto before = [](const Rule& a, const Rule& b) { return a.name < b.name; };
    if (!std::is_sorted(rules_.begin(), rules_.end(), before)) std::sort(rules_.begin(), rules_.end(), before);
    places_.shrink_to_fit();
    literals_.shrink_to_fit();
}

const Rules::Rule* Rules::find(std::string_view name) const {
    const auto before = [](const Rule& rule, std::string_view wanted) { return rule.name < wanted; };
    const auto at = std::lower_bound(rules_.begin(), rules_.end(), name, before);
    return at != rules_.end() && at->name == name ? &*at : nullptr;
}

std::size_t Rules::firstAccepting(const Rule& rule, std::string_view text) const {
    const auto all = patterns(rule);
    std::size_t first = all.size();
    if (const auto literals = partOf(literals_, rule.literals); !literals.empty()) {
        if (!effort::take(kUnitsALookUp + effort::ofBytes(text.size()))) return all.size();
        const std::uint64_t hash = text::numericHash(text);
        auto at = std::lower_bound(literals.begin(), literals.end(), hash,
                                   [](const Literal& literal, std::uint64_t h) { return literal.hash < h; });
        for (; at != literals.end() && at->hash == hash; ++at) {
            if (!all[at->place].accepts(text)) continue;
            first = at->place;
            break;
        }
    }
    for (const std::uint32_t place : partOf(places_, rule.tried)) {
        if (place > first) break;
        if (all[place].accepts(text)) return place;
    }
    return first;
}

bool Rules::isAllPlain(const Rule& rule) const {
    const auto all = patterns(rule);
    return rule.demand == Demand::patterns && !rule.hasOtherElements &&
           std::all_of(all.begin(), all.end(), [](const Pattern& p) { return p.plainText().has_value(); });
}

std::optional<std::vector<std::string>> Rules::writtenTexts(std::string_view name) const {
    const Rule* const rule = find(name);
    if (rule == nullptr || !isAllPlain(*rule)) return {};
    const auto all = patterns(*rule);
    std::vector<std::string> texts;
    texts.reserve(all.size());
    for (const Pattern& pattern : all) texts.emplace_back(pattern.operand());
    return texts;
}

std::optional<std::vector<std::string>> Rules::plainTexts(std::string_view name) const {
    const Rule* const rule = find(name);
    const auto literals = rule != nullptr ? partOf(literals_, rule->literals) : std::span<const Literal>{};
    if (literals.empty() || !isAllPlain(*rule)) return writtenTexts(name);
    const auto all = patterns(*rule);
    std::vector<std::string> texts;
    texts.reserve(literals.size());
    for (const Literal& literal : literals) texts.emplace_back(all[literal.place].operand());
    return texts;
}

}  // namespace rules
