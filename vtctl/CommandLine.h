#pragma once

#include <functional>
#include <string>
#include <variant>
#include <vector>

#include "vtctl/ExitStatus.h"

// What a command line asks for: the work that gives the exit status, or the status right away where the line is wrong,
// or asked for help, and that has been said.
std::variant<std::function<int()>, ExitStatus> readCommandLine(int argc, const char* const* argv);
