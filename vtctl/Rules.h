#pragma once

#include <string>
#include <vector>

#include "platform/value/Value.h"

// Match rules as people write them on a command line: KEY=PATTERN, where the patterns true and false are the booleans
// and a KEY given again accepts either pattern.
namespace rules {

// An error says which word is none.
value::Result<value::Dictionary> fromWords(const std::vector<std::string>& words);

// The words that fromWords() reads as these rules, quoted for a shell and safe to print; values that no word stands for
// as JSON.
std::string inWords(const value::Dictionary& rules);

}  // namespace rules
