#pragma once

#include <string_view>

namespace text {

// Whether the UTF-8 text begins with a letter or a digit of any script. False for an empty or malformed beginning.
bool beginsAlphanumeric(std::string_view text);

}  // namespace text
