#pragma once

#include <string>
#include <vector>

#include "vtctl/ExitStatus.h"

// `vtctl access PLUGIN...`: prints a token for the folder of each plug-in, in the order named.
ExitStatus runAccess(const std::string& serviceName, const std::vector<std::string>& words, bool asJson);

// `vtctl access --open PLUGIN PATH`: reads a file of the plug-in as a host without sight of its folder does, through a
// token, and copies it to standard output. The path is absolute or from the plug-in's folder.
ExitStatus runOpen(const std::string& serviceName, const std::string& word, const std::string& path);
