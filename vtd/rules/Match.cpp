#include "vtd/rules/Match.h"

#include <optional>
#include <string>
#include <string_view>

#include "platform/effort/Effort.h"

namespace rules {

namespace {

constexpr std::size_t kItemsDecodedForNothing = std::size_t{16} << 10;  // bytes

bool isFalse(const value::Value& value) {
    return value == value::Value{false};
}

// The patterns of a rule held against the texts of one value. Those with unknown operators come to their turn as often
// as if all were tried one after another.
class Trial {
public:
    Trial(const Rules& rules, const Rules::Rule& rule, Complaints& complaints)
        : rules_{rules}, rule_{rule}, complaints_{complaints}, last_{rule.patterns.count} {}

    bool accepts(std::string_view text) {
        const std::size_t first = rules_.firstAccepting(rule_, text);
        if (first == rule_.patterns.count) {
            ++misses_;
            return false;
        }
        last_ = first;
        return true;
    }

    void complain(bool accepted) {
        if (rule_.unknown.count == 0) return;
        const auto patterns = rules_.patterns(rule_);
        for (const std::uint32_t place : rules_.unknown(rule_)) {
            const bool tried = accepted && place < last_;
            if (!effort::take(patterns[place].price())) return;
            complaints_.addUnknownOperator(patterns[place].text(), misses_ + (tried ? 1 : 0));
        }
    }

private:
    const Rules& rules_;
    const Rules::Rule& rule_;
    Complaints& complaints_;
    std::uint64_t misses_ = 0;
    std::size_t last_;  // the place of the pattern that accepted
};

// An array meets a rule's patterns by its first text that one accepts.
template <typename ForEachElement>
bool isMetByElements(const Rules& rules, const Rules::Rule& rule, Complaints& complaints,
                     const ForEachElement& forEachElement) {
    Trial trial{rules, rule, complaints};
    bool accepted = false;
    bool goesOn = true;
    forEachElement([&](std::optional<std::string_view> text) {
        goesOn = effort::take(1);
        accepted = goesOn && text && trial.accepts(*text);
        return goesOn && !accepted;
    });
    if (!goesOn) return false;
    trial.complain(accepted);
    return accepted;
}

}  // namespace

bool isMetByText(const Rules& rules, const Rules::Rule& rule, std::string_view value, Complaints& complaints) {
    switch (rule.demand) {
        case Demand::truth: return true;
        case Demand::patterns: {
            Trial trial{rules, rule, complaints};
            const bool accepted = trial.accepts(value);
            trial.complain(accepted);
            return accepted;
        }
        case Demand::falsity:
        case Demand::items:  // no text is an activation rule
        case Demand::nothing: break;
    }
    return false;
}

bool isMet(const Rules& rules, const Rules::Rule& rule, const value::Value* value, Complaints& complaints) {
    if (value == nullptr) return rule.demand == Demand::falsity;
    if (const std::string* text = value->string()) return isMetByText(rules, rule, *text, complaints);
    switch (rule.demand) {
        case Demand::truth: return !isFalse(*value);
        case Demand::falsity: return isFalse(*value);
        case Demand::items: return activation::evaluate(*value, rules.items(rule));
        case Demand::patterns: break;
        case Demand::nothing: return false;
    }
    const value::Array* const elements = value->array();
    if (elements == nullptr) return false;
    return isMetByElements(rules, rule, complaints, [&](const auto& visit) {
        for (const value::Value& element : *elements) {
            const std::string* const text = element.string();
            if (!visit(text != nullptr ? std::optional<std::string_view>{*text} : std::nullopt)) return;
        }
    });
}

bool isMet(const Rules& rules, const Rules::Rule& rule, mox::View value, Complaints& complaints) {
    if (const auto text = value.string()) return isMetByText(rules, rule, *text, complaints);
    const bool isContainer = value.isArray() || value.isDictionary();
    if (rule.demand != Demand::patterns && isContainer) {
        if (rule.demand != Demand::items) return rule.demand == Demand::truth;  // no container equals false
        // An activation rule as the registry bounds it is decoded for nothing, like one that was decoded before.
        std::optional<effort::Uncharged> uncharged;
        if (value.size() <= kItemsDecodedForNothing) uncharged.emplace();
        const value::Value decoded = value.toValue();
        uncharged.reset();
        return isMet(rules, rule, &decoded, complaints);
    }
    if (!value.isArray()) {
        if (isContainer) return false;  // no pattern accepts a dictionary
        const value::Value decoded = value.toValue();
        return isMet(rules, rule, &decoded, complaints);
    }
    return isMetByElements(rules, rule, complaints, [&](const auto& visit) {
        value.forEachElement([&](mox::View element) { return visit(element.string()); });
    });
}

}  // namespace rules
