#pragma once

#include <optional>
#include <string>
#include <vector>

// The paths of a command line as the daemon takes them: absolute, links and ".." left for it to resolve. A path that is
// empty or cannot be sent is reported on standard error, and there is nothing.
std::optional<std::vector<std::string>> absolutePaths(const std::vector<std::string>& paths);
