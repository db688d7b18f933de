#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace support {

// "0a ff" -> the two bytes; blanks and line ends are passed over.
inline std::vector<std::byte> fromHex(std::string_view text) {
    const auto digit = [](char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; };
    std::vector<std::byte> bytes;
    int high = -1;
    for (const char c : text) {
        if (c == ' ' || c == '\n') continue;
        if (high < 0) {
            high = digit(c);
        } else {
            bytes.push_back(static_cast<std::byte>(high << 4 | digit(c)));
            high = -1;
        }
    }
    return bytes;
}

}  // namespace support
