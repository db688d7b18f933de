#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vtctl/ExitStatus.h"

// The user's exclusions: rules for plug-ins that no host shall see, kept in the user's preferences, where the daemon
// reads them at its next discovery. None of these speaks to the daemon.

// `vtctl exclude KEY=PATTERN...`: adds one exclusion, of what has all of these; says its number.
ExitStatus runExclude(const std::vector<std::string>& words);

// `vtctl exclusions`: lists them with their numbers, which are their places in the list.
ExitStatus runExclusions(bool asJson);

// `vtctl include NUMBER`: takes one away; those behind it move up.
ExitStatus runInclude(std::int64_t number);
