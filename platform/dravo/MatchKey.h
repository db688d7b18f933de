#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// How the indices tell texts apart. A rule's literal is compared as text::compareNumerically does, where runs of digits
// go by value: "point.01" accepts "point.1". Narrowing must not lose what the rule would accept, so both sides are
// looked up under a key in which such texts agree.
namespace dravo {

std::string matchKey(std::string_view text);  // the text without the leading zeroes of its runs of digits
std::uint64_t matchHash(std::string_view text);

}  // namespace dravo
