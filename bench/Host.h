#pragma once

#include <cstddef>
#include <string>

#include "platform/value/Value.h"

namespace bench {

// Measures discoveries as microsecondsAMatch does, but in a host: a process of this program that runs from a bundle in
// the root, and so has entitlements. The process has the cores of this one.
double microsecondsAMatchAsHost(const std::string& root, const value::Dictionary& entitlements, std::size_t expected);

// What that process does: the arguments of main() tell. Whether this is one; it has then printed its figure.
bool ranAsHost(int argc, char** argv);

}  // namespace bench
