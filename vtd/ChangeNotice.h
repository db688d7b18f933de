#pragma once

#include <cstdint>

// Tells whoever listens that what is decided about plug-ins has changed, once for each change, all of them for the
// price of one. A failure is logged. Any thread.
void postAnnotationChange(std::uint64_t times);
