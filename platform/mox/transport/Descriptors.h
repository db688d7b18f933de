#pragma once

#include <cstddef>

// The process's descriptors, which connections share with files.
namespace mox {

inline constexpr std::size_t kConnectionDescriptors = 2;  // socket, process

// Raises the process's limit on descriptors as far as it goes.
void raiseDescriptorLimit();

// How many descriptors are free now and none of those that are kept back for files: for what is saved, and for bundles.
// Negative when some of those are taken. Any thread.
std::ptrdiff_t freeDescriptors();

}  // namespace mox
