#pragma once

#include <string>
#include <vector>

#include "vtctl/Diagnosis.h"
#include "vtctl/ExitStatus.h"

// `vtctl verify`: all that is wrong with plug-ins at paths, without the daemon. The status is `usage` when there is a
// fault.
ExitStatus runVerify(const std::vector<std::string>& paths, bool asJson);

// A line for each problem, with what to do about it.
void printProblems(const std::vector<diagnosis::Problem>& problems, std::ostream& stream);
