#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What is wrong with a plug-in's bundle as it lies on the disk: found out without the daemon, which need not run, nor
// have taken it.
namespace diagnosis {

struct Problem {
    // A fault keeps the plug-in from being made or started; an oddity is accepted, and probably not what was meant.
    enum class Kind : std::uint8_t { fault, oddity };

    Kind kind;
    std::string file;  // absolute
    std::string key;   // a path with dots; empty: the file as a whole
    std::string what;
    std::string remedy;  // empty: what is wrong says it
};

// All of the bundle at the absolute path; of an application, those of its plug-ins. Texts are as they stand in the
// files.
std::vector<Problem> ofPath(const std::string& path);

}  // namespace diagnosis
