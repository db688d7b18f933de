#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// What indices of texts are made of when texts are compared as compareNumerically does: it takes some different texts
// for the same ("point.01" and "point.1"), and a look-up by one must find what was put in by the other.
namespace text {

// The text without the leading zeroes of its runs of digits: equal exactly for texts that compare as equivalent.
std::string numericKey(std::string_view text);

// Equal for texts that compare as equivalent, seldom for others. Allocates nothing unless there are leading zeroes.
std::uint64_t numericHash(std::string_view text);

}  // namespace text
