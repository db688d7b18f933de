#include "platform/text/Alphanumeric.h"

#include <clocale>
#include <cwchar>
#include <cwctype>

#include <locale.h>

namespace text {

namespace {

// The C library's own tables, whatever locale the process runs in; part of the library itself, so always there.
locale_t unicode() {
    static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    return locale;
}

bool isAsciiAlphanumeric(unsigned char byte) {
    return (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
}

// The first character; 0 when the bytes are no well-formed sequence.
char32_t firstCharacter(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text.front());
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 ? 2 : 0;
    if (length == 0 || lead > 0xF4 || text.size() < length) return 0;
    char32_t character = lead & (0x7FU >> length);
    for (const char byte : text.substr(1, length - 1)) {
        if ((static_cast<unsigned char>(byte) & 0xC0U) != 0x80U) return 0;
        character = character << 6U | (static_cast<unsigned char>(byte) & 0x3FU);
    }
    return character;
}

}  // namespace

bool beginsAlphanumeric(std::string_view text) {
    if (text.empty()) return false;
    const auto first = static_cast<unsigned char>(text.front());
    if (first < 0x80U) return isAsciiAlphanumeric(first);
    const char32_t character = firstCharacter(text);
    return character != 0 && unicode() != nullptr && iswalnum_l(static_cast<wint_t>(character), unicode()) != 0;
}

}  // namespace text
