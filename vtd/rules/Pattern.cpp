#include "vtd/rules/Pattern.h"

#include <algorithm>
#include <compare>

#include "platform/effort/Effort.h"
#include "platform/text/Alphanumeric.h"
#include "platform/text/NumericCompare.h"
#include "platform/types/TypeHierarchy.h"

namespace rules {

namespace {

struct Prefix {
    std::string_view text;
    Operator means;
};

// In the order in which they are tried, so that "<>" and "<=" are not read as "<".
constexpr Prefix kPrefixes[] = {
    {"?ZT-CONFORMS:", Operator::conforms},
    {"?ZT-IS:", Operator::is},
    {"?", Operator::unknown},
    {"<>", Operator::unequal},
    {"<=", Operator::notAfter},
    {">=", Operator::notBefore},
    {"=", Operator::equal},
    {"<", Operator::before},
    {">", Operator::after},
    {"", Operator::equal},
};

Prefix prefixOf(std::string_view text) {
    return *std::find_if(std::begin(kPrefixes), std::end(kPrefixes),
                         [text](const Prefix& prefix) { return text.starts_with(prefix.text); });
}

constexpr std::uint64_t kUnitsAConformance = 50;
constexpr std::uint64_t kUnitsAComplaint = 5;

}  // namespace

Pattern::Pattern(std::string_view text)
    : text_{text.data()}, size_{static_cast<std::uint32_t>(text.size())}, operator_{}, prefix_{} {
    const Prefix prefix = prefixOf(text);
    operator_ = prefix.means;
    prefix_ = static_cast<std::uint8_t>(prefix.text.size());
}

std::optional<std::string_view> Pattern::plainText() const {
    const bool isPlain = isLiteral() && (prefix_ > 0 || text::beginsAlphanumeric(text()));
    return isPlain ? std::optional{operand()} : std::nullopt;
}

std::uint64_t Pattern::price() const {
    switch (operator_) {
        case Operator::conforms:
        case Operator::is: return kUnitsAConformance;
        case Operator::unknown: return kUnitsAComplaint;
        default: return 1;
    }
}

bool Pattern::accepts(std::string_view value) const {
    if (!effort::take(price() + effort::ofCharacters(std::min<std::size_t>(value.size(), size_)))) return false;
    const auto order = [&] { return text::compareNumerically(value, operand()); };
    switch (operator_) {
        case Operator::conforms: return types::conforms(value, operand());
        case Operator::is: return types::conforms(operand(), value);
        case Operator::unknown: return false;
        case Operator::unequal: return order() != 0;
        case Operator::notAfter: return order() <= 0;
        case Operator::notBefore: return order() >= 0;
        case Operator::equal: return order() == 0;
        case Operator::before: return order() < 0;
        case Operator::after: return order() > 0;
    }
    return false;
}

}  // namespace rules
