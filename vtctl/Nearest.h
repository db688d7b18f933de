#pragma once

#include <optional>
#include <set>
#include <string>

// Which of some names a misspelt one was probably meant to be.
namespace nearest {

// Nothing when none is near: by changing, adding or leaving out at most a third of the characters, however they are
// capitalised. Of several the first.
std::optional<std::string> to(const std::string& name, const std::set<std::string>& names);

}  // namespace nearest
