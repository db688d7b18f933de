#pragma once

#include <string>
#include <vector>

#include "vtctl/ExitStatus.h"

// `vtctl add PATH...` and `vtctl remove PATH...`: registers and unregisters the plug-in bundles at the paths, in their
// order up to the first that is refused. Relative paths are made absolute here, since the daemon's directory is
// another.
ExitStatus runAdd(const std::string& serviceName, const std::vector<std::string>& paths);
ExitStatus runRemove(const std::string& serviceName, const std::vector<std::string>& paths);
