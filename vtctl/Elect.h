#pragma once

#include <string>
#include <vector>

#include "vtctl/ExitStatus.h"

// `vtctl enable|disable|default PLUGIN...`: stores the user's election.
enum class Election { undecided = 0, use = 1, ignore = 2 };

// All words are resolved before anything changes. An identifier stands for all its copies, since it is under
// identifiers that elections are kept.
ExitStatus runElect(const std::string& serviceName, const std::vector<std::string>& words, Election election);
