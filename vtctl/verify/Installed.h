#pragma once

#include <string>
#include <vector>

// What lies on the volumes where the daemon looks for it, known to it or not. Sorted; links resolved.
namespace verify {

std::vector<std::string> installedApplications();

// Folders in the PlugIns of applications and of the system volume, whatever is in them.
std::vector<std::string> installedPlugIns();

}  // namespace verify
