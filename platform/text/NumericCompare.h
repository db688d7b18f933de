#pragma once

#include <compare>
#include <string_view>

namespace text {

// Orders two texts character by character, except that a run of decimal digits in both at the same place compares by
// its numeric value, however long the runs are; other characters compare exactly, and a prefix orders before what it
// begins. So 1.10 is greater than 1.9, 2.0 less than 2.0.1, and 10 greater than 9. Runs of equal value but different
// length (leading zeroes) are equivalent. Linear in the length of the shorter text
// (leading zeroes aside, which are charged when they are many); allocates nothing. Digits are ASCII ones.
std::weak_ordering compareNumerically(std::string_view a, std::string_view b);

}  // namespace text
