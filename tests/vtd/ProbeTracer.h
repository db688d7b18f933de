#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// A tracer of static probes, as small as one can be: lists those of a program by what `readelf -n` says, runs the
// program with their semaphores raised and a breakpoint at each, and reads the arguments from the stopped thread.

struct Probe {
    std::string provider;
    std::string name;
    std::uint64_t location = 0;
    std::uint64_t semaphore = 0;
    std::vector<std::string> arguments;  // as the note has them: SIZE@OPERAND
};

std::vector<Probe> listProbes(const std::string& program);

// An argument of a fired probe: the number, and what it points to when that can be read as a text.
struct FiredArgument {
    std::int64_t number = 0;
    std::string text;
};

struct Fired {
    std::string name;
    std::vector<FiredArgument> arguments;
};

// Runs the program, from its first instruction on, until `last` has fired or it ends; then kills it. `started` is told
// its pid before it runs.
std::vector<Fired> traceProgram(const std::string& program, std::vector<std::string> arguments,
                                std::vector<std::string> environment, const std::vector<Probe>& probes,
                                const std::string& last, const std::function<void(pid_t)>& started);
