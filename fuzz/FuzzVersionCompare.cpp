#include <compare>
#include <string>

#include "fuzz/Fuzz.h"
#include "platform/text/NumericCompare.h"

namespace {

// The slow and obvious way: every number padded with zeroes to the same width, so that texts compare plainly.
std::string padded(std::string_view text, std::size_t width) {
    std::string result;
    for (std::size_t i = 0; i < text.size();) {
        std::string digits;
        while (i < text.size() && text[i] >= '0' && text[i] <= '9') digits += text[i++];
        result += digits.empty() ? std::string(1, text[i++]) : std::string(width - digits.size(), '0') + digits;
    }
    return result;
}

}  // namespace

// The input is three texts with newlines between them.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view c = fuzz::textOf(data, size);
    const std::string_view a = fuzz::takeLine(c);
    const std::string_view b = fuzz::takeLine(c);

    const auto ab = text::compareNumerically(a, b);
    const auto bc = text::compareNumerically(b, c);
    fuzz::require(ab == (padded(a, size) <=> padded(b, size)));
    fuzz::require(text::compareNumerically(a, a) == 0);
    fuzz::require(text::compareNumerically(b, a) == (0 <=> ab));
    if (ab <= 0 && bc <= 0) fuzz::require(text::compareNumerically(a, c) <= 0);
    if (ab == 0 && bc == 0) fuzz::require(text::compareNumerically(a, c) == 0);
    return 0;
}
