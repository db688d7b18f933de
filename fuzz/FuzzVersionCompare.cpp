#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

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

void require(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

// The input is three texts with newlines between them.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view rest{reinterpret_cast<const char*>(data), size};
    const auto next = [&rest] {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(line.size() == rest.size() ? line.size() : line.size() + 1);
        return line;
    };
    const std::string_view a = next();
    const std::string_view b = next();
    const std::string_view c = rest;

    const auto ab = text::compareNumerically(a, b);
    const auto bc = text::compareNumerically(b, c);
    require(ab == (padded(a, size) <=> padded(b, size)));
    require(text::compareNumerically(a, a) == 0);
    require(text::compareNumerically(b, a) == (0 <=> ab));
    if (ab <= 0 && bc <= 0) require(text::compareNumerically(a, c) <= 0);
    if (ab == 0 && bc == 0) require(text::compareNumerically(a, c) == 0);
    return 0;
}
