#pragma once

#include <string>
#include <string_view>

namespace text {

// Whether the bytes are well-formed UTF-8: no overlong forms, no surrogates, nothing beyond U+10FFFF. NUL is a
// character.
bool isUtf8(std::string_view bytes);

// The text, with a replacement character (U+FFFD) in the place of each byte that is not well-formed.
std::string wellFormed(std::string_view bytes);

}  // namespace text
