#include "platform/text/NumericCompare.h"

#include <cstddef>

// Both texts are read as rows of tokens: a whole run of digits is one token, any other character is one. The order is
// the lexicographic one over the tokens, which is why it is transitive: digits stand together in the character set, so
// that every number orders the same way against any other character.
namespace text {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Takes the run of digits that the text begins with off it; the answer lacks leading zeroes, so that a longer one is
// the greater number and those of equal length compare as texts.
std::string_view takeNumber(std::string_view& text) {
    std::size_t start = 0;
    while (start < text.size() && text[start] == '0') ++start;
    std::size_t end = start;
    while (end < text.size() && isDigit(text[end])) ++end;
    const std::string_view number = text.substr(start, end - start);
    text.remove_prefix(end);
    return number;
}

}  // namespace

std::weak_ordering compareNumerically(std::string_view a, std::string_view b) {
    while (!a.empty() && !b.empty()) {
        if (isDigit(a.front()) && isDigit(b.front())) {
            const std::string_view numberOfA = takeNumber(a);
            const std::string_view numberOfB = takeNumber(b);
            if (const auto order = numberOfA.size() <=> numberOfB.size(); order != 0) return order;
            if (const int order = numberOfA.compare(numberOfB); order != 0) return order <=> 0;
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
