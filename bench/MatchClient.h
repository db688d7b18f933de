#pragma once

#include <cstddef>

namespace bench {

// Microseconds a match of discoveries by the extension point kExtensionPoint, asked of the daemon that runs on this
// process's root, every key and value of every form visited. Throws unless each finds as many as expected.
double microsecondsAMatch(std::size_t expected);

}  // namespace bench
