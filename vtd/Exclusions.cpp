#include "vtd/Exclusions.h"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "platform/text/NumericKey.h"
#include "vtd/VTDPlugIn.h"

namespace {

constexpr std::uint64_t kUnitsALookUp = 20;

// The text that the first of the rules takes as the identifier, with what compares as equivalent, and nothing else.
// Only the first one sorts rules into the index: those before it would have to be evaluated first, and some say
// something in the log.
std::optional<std::string_view> identifierIn(const rules::Rules& rules) {
    if (rules.rules().empty()) return {};
    const rules::Rules::Rule& first = rules.rules().front();
    if (first.attribute != rules::Attribute::identifier || first.demand != rules::Demand::patterns) return {};
    const auto patterns = rules.patterns(first);
    return patterns.size() == 1 && patterns.front().isLiteral() ? std::optional{patterns.front().operand()}
                                                                : std::nullopt;
}

}  // namespace

// In parentheses: braces would make a list of one list.
Exclusions::Exclusions(value::Array rules) : source_(std::move(rules)) {
    for (const value::Value& element : source_) {
        const value::Dictionary* const exclusion = element.dictionary();
        if (exclusion == nullptr) continue;
        const std::size_t position = rules_.size();
        const rules::Rules& read = rules_.emplace_back(*exclusion);
        if (const auto identifier = identifierIn(read)) {
            named_.push_back({text::numericHash(*identifier), position});
        } else {
            others_.push_back(position);
            price_ += read.price();
        }
    }
    std::sort(named_.begin(), named_.end());
    if (!named_.empty()) price_ += kUnitsALookUp;
}

std::size_t Exclusions::covering(const VTDPlugIn& plugIn, rules::Complaints& complaints) const {
    auto named = named_.end();
    auto namedEnd = named_.end();
    if (!named_.empty()) {
        const std::uint64_t hash = text::numericHash(plugIn.identifier());
        const auto before = [](const Named& a, const Named& b) { return a.identifier < b.identifier; };
        std::tie(named, namedEnd) = std::equal_range(named_.begin(), named_.end(), Named{hash, 0}, before);
    }
    auto other = others_.begin();
    while (named != namedEnd || other != others_.end()) {
        const bool namedIsNext = other == others_.end() || (named != namedEnd && named->position < *other);
        const std::size_t next = namedIsNext ? (named++)->position : *other++;
        if (plugIn.unmatchedRule(rules_[next], complaints) == nullptr) return next;
    }
    return kNone;
}
