#pragma once

#include <cctype>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace support {

// "0a ff" -> the two bytes; blanks and line ends are passed over.
inline std::vector<std::byte> fromHex(std::string_view text) {
    std::string digits{text};
    std::erase_if(digits, [](unsigned char c) { return std::isspace(c) != 0; });
    std::vector<std::byte> bytes;
    for (std::size_t at = 0; at < digits.size(); at += 2)
        bytes.push_back(static_cast<std::byte>(std::stoi(digits.substr(at, 2), nullptr, 16)));
    return bytes;
}

}  // namespace support
