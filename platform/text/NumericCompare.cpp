#include "platform/text/NumericCompare.h"

#include <cstddef>

#include "platform/effort/Effort.h"

// Both texts are read as rows of tokens: a whole run of digits is one token, any other character is one. The order is
// the lexicographic one over the tokens, which is why it is transitive: digits stand together in the character set, so
// that every number orders the same way against any other character.
namespace text {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

void dropLeadingZeroes(std::string_view& text) {
    constexpr std::size_t kMany = 64;
    std::size_t zeroes = 0;
    while (zeroes < text.size() && text[zeroes] == '0') ++zeroes;
    text.remove_prefix(zeroes);
    // As many as somebody likes, whatever they are compared with.
    if (zeroes >= kMany) static_cast<void>(effort::take(effort::ofCharacters(zeroes)));
}

bool beginsWithDigit(std::string_view text) {
    return !text.empty() && isDigit(text.front());
}

// Takes the runs of digits that the texts begin with off them, as far as it takes to tell the order of their values:
// the longer one is the greater, of those of equal length the one with the first greater digit.
std::weak_ordering takeNumbers(std::string_view& a, std::string_view& b) {
    dropLeadingZeroes(a);
    dropLeadingZeroes(b);
    std::weak_ordering order = std::weak_ordering::equivalent;
    while (beginsWithDigit(a) && beginsWithDigit(b)) {
        if (order == 0) order = a.front() <=> b.front();
        a.remove_prefix(1);
        b.remove_prefix(1);
    }
    if (beginsWithDigit(a)) return std::weak_ordering::greater;
    if (beginsWithDigit(b)) return std::weak_ordering::less;
    return order;
}

}  // namespace

std::weak_ordering compareNumerically(std::string_view a, std::string_view b) {
    while (!a.empty() && !b.empty()) {
        if (isDigit(a.front()) && isDigit(b.front())) {
            if (const auto order = takeNumbers(a, b); order != 0) return order;
        } else {
            const auto order = static_cast<unsigned char>(a.front()) <=> static_cast<unsigned char>(b.front());
            if (order != 0) return order;
            a.remove_prefix(1);
            b.remove_prefix(1);
        }
    }
    return a.size() <=> b.size();
}

}  // namespace text
