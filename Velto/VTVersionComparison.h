#pragma once

#include <compare>
#include <string_view>

#include "platform/text/NumericCompare.h"

// Orders two version strings: runs of digits by their number, all else character by character.
inline std::weak_ordering compareVersionString(std::string_view version, std::string_view other) {
    return text::compareNumerically(version, other);
}
