#include "platform/logging/Escape.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace logging {
namespace {

struct Character {
    std::uint32_t code;
    std::size_t length;  // 0: the first byte does not begin a well-formed character
};

Character firstOf(std::string_view text) {
    const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) return {lead, 1};
    const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || text.size() < length) return {0, 0};
    std::uint32_t code = lead & (0x7fU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0U) != 0x80U) return {0, 0};
        code = code << 6U | (byte(i) & 0x3fU);
    }
    const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
    const bool surrogate = code >= 0xd800 && code <= 0xdfff;
    return overlong || surrogate || code > 0x10ffff ? Character{0, 0} : Character{code, length};
}

bool isControl(std::uint32_t code) {
    return code < 0x20 || (code >= 0x7f && code < 0xa0) ||  // C0, DEL, C1
           (code >= 0x200e && code <= 0x200f) || (code >= 0x2028 && code <= 0x202e) ||
           (code >= 0x2066 && code <= 0x2069) || code == 0x61c;
}

bool isPlain(char c) {
    return c >= 0x20 && c < 0x7f;
}

void appendHex(std::string& line, char letter, std::uint32_t code, unsigned digits) {
    line += '\\';
    line += letter;
    while (digits-- > 0) line += "0123456789abcdef"[code >> 4 * digits & 0xfU];
}

void appendControl(std::string& line, std::uint32_t code) {
    switch (code) {
        case '\n': line += "\\n"; break;
        case '\r': line += "\\r"; break;
        case '\t': line += "\\t"; break;
        default:
            if (code < 0x80) return appendHex(line, 'x', code, 2);
            appendHex(line, 'u', code, 4);
    }
}

}  // namespace

void appendEscaped(std::string& line, std::string_view text) {
    while (!text.empty()) {
        const auto plain = static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), isPlain) - text.begin());
        line += text.substr(0, plain);
        text.remove_prefix(plain);
        if (text.empty()) return;
        const Character character = firstOf(text);
        if (character.length == 0) {
            appendHex(line, 'x', static_cast<unsigned char>(text.front()), 2);
            text.remove_prefix(1);
            continue;
        }
        if (isControl(character.code)) {
            appendControl(line, character.code);
        } else {
            line += text.substr(0, character.length);
        }
        text.remove_prefix(character.length);
    }
}

}  // namespace logging
