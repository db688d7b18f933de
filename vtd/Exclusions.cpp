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

// The text that a pattern accepts, with what compares as equivalent, and nothing else; nothing for other patterns.
std::optional<std::string_view> literalText(const value::Value& pattern) {
    const std::string* text = pattern.string();
    if (text == nullptr) return {};
    if (text->starts_with('=')) return std::string_view{*text}.substr(1);
    if (text->starts_with('?') || text->starts_with('<') || text->starts_with('>')) return {};
    return *text;
}

}  // namespace

// In parentheses: braces would make a list of one list.
Exclusions::Exclusions(value::Array rules) : rules_(std::move(rules)) {
    for (std::size_t position = 0; position < rules_.size(); ++position) {
        if (const value::Dictionary* exclusion = rules_[position].dictionary()) add(position, *exclusion);
    }
    std::sort(named_.begin(), named_.end());
}

// Only the first rule of a dictionary sorts it into the index: rules before it would have to be evaluated first, and
// some say something in the log.
void Exclusions::add(std::size_t position, const value::Dictionary& rules) {
    const value::Dictionary::Entry* first = rules.begin();
    const auto literal =
        first != rules.end() && first->key == "KXExtensionIdentifier" ? literalText(first->value) : std::nullopt;
    if (literal) {
        named_.push_back({text::numericHash(*literal), position});
    } else {
        others_.push_back(position);
    }
}

bool Exclusions::cover(const VTDPlugIn& plugIn) const {
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
        if (plugIn.unmatchedRule(*rules_[next].dictionary()) == nullptr) return true;
    }
    return false;
}
