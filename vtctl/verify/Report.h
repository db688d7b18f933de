#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "vtctl/ExitStatus.h"
#include "vtctl/verify/Findings.h"

namespace verify {

enum class Form : std::uint8_t { lines, json, sarif };

// A line for each problem, as compilers write them, with what to do about it and the rule.
void print(const Problems& problems, std::ostream& stream);

}  // namespace verify

// `vtctl verify`: all that is wrong with what lies at the paths, without the daemon. The status is `usage` when there
// is a fault.
ExitStatus runVerify(const std::vector<std::string>& paths, verify::Form form);

// `vtctl verify --keys` and `--rules`: what is read, and what it is held against.
ExitStatus runListKeys();
ExitStatus runListRules();
