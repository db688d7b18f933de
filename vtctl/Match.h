#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vtctl/ExitStatus.h"

// `vtctl match`: the forms that a host would get.
struct MatchOptions {
    std::string serviceName;
    std::vector<std::string> patterns;  // KEY=PATTERN
    std::string rulesFile;              // a property list or JSON; empty for none
    std::uint64_t flags = 0;
    bool asJson = false;
    bool tellsRejected = false;  // what was left out, and why
};

ExitStatus runMatch(const MatchOptions& options);
