#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// The rule language: what a host, a user or an entitlement says of the plug-ins that it means. The one place that knows
// its operators is here.
namespace rules {

enum class Operator : std::uint8_t {
    conforms,   // "?ZT-CONFORMS:" the value, as a type, to the operand
    is,         // "?ZT-IS:" the operand to the value
    unknown,    // "?" and anything else: accepts nothing
    unequal,    // "<>"
    notAfter,   // "<="
    notBefore,  // ">="
    equal,      // "=" or nothing
    before,     // "<"
    after,      // ">"
};

// One operator pattern, read once: its operator and its operand. Texts compare as text::compareNumerically does, the
// value first.
//
// Refers to the text, which must outlive it (and is shorter than 4 GiB). Small, since a request may bring a hundred
// thousand: any thread.
class Pattern {
public:
    explicit Pattern(std::string_view text);

    std::string_view text() const { return {text_, size_}; }
    std::string_view operand() const { return text().substr(prefix_); }
    Operator op() const { return operator_; }

    // Accepts what compares as equivalent to the operand and nothing else: can be looked up.
    bool isLiteral() const { return operator_ == Operator::equal; }

    // The text by which the registry can be asked: behind "=", or a pattern that begins with a letter or a digit.
    std::optional<std::string_view> plainText() const;

    // Charged to the request; no once that is spent. Of an unknown operator whoever asks is to complain.
    bool accepts(std::string_view value) const;

    std::uint64_t price() const;  // of accepts(), the length of the texts aside, in units of effort

private:
    const char* text_;
    std::uint32_t size_;
    Operator operator_;
    std::uint8_t prefix_;
};
static_assert(sizeof(Pattern) == 16);

}  // namespace rules
