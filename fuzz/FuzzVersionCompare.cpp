#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "platform/text/NumericCompare.h"

namespace {

// The slow and obvious way: tokens, every number padded with zeroes to the same width, so that texts compare plainly.
std::vector<std::string> tokens(std::string_view text, std::size_t width) {
    std::vector<std::string> result;
    for (std::size_t i = 0; i < text.size();) {
        std::string token;
        while (i < text.size() && text[i] >= '0' && text[i] <= '9') token += text[i++];
        if (token.empty()) {
            result.emplace_back(1, text[i++]);
        } else {
            result.push_back(std::string(width - token.size(), '0') + token);
        }
    }
    return result;
}

std::weak_ordering obviously(std::string_view a, std::string_view b) {
    const std::size_t width = a.size() + b.size();
    const auto left = tokens(a, width);
    const auto right = tokens(b, width);
    if (left < right) return std::weak_ordering::less;
    return right < left ? std::weak_ordering::greater : std::weak_ordering::equivalent;
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
    require(ab == obviously(a, b));
    require(text::compareNumerically(a, a) == 0);
    require(text::compareNumerically(b, a) == (0 <=> ab));
    if (ab <= 0 && bc <= 0) require(text::compareNumerically(a, c) <= 0);
    if (ab == 0 && bc == 0) require(text::compareNumerically(a, c) == 0);
    return 0;
}
