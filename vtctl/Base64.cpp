#include "vtctl/Base64.h"

#include <algorithm>
#include <cstddef>

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string toBase64(mox::Bytes bytes) {
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t here = std::min<std::size_t>(3, bytes.size() - i);
        unsigned group = 0;
        for (std::size_t k = 0; k < 3; ++k) {
            group = group << 8 | (k < here ? std::to_integer<unsigned>(bytes[i + k]) : 0U);
        }
        for (std::size_t k = 0; k < 4; ++k) text += k <= here ? kAlphabet[group >> (18 - 6 * k) & 63] : '=';
    }
    return text;
}

std::optional<value::Data> fromBase64(std::string_view text) {
    if (text.size() % 4 != 0) return {};
    while (!text.empty() && text.back() == '=') text.remove_suffix(1);
    if (text.size() % 4 == 1) return {};
    value::Data data;
    unsigned group = 0;
    int bits = 0;
    for (const char c : text) {
        const std::size_t digit = kAlphabet.find(c);
        if (digit == std::string_view::npos) return {};
        group = group << 6 | static_cast<unsigned>(digit);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            data.push_back(static_cast<std::byte>(group >> bits & 0xFF));
        }
    }
    return data;
}
