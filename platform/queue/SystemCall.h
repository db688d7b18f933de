#pragma once

#include <cerrno>
#include <string>
#include <system_error>

#include "platform/logging/Log.h"

namespace queue {

// The result of a call without which the pool cannot be; its failure stops the process.
inline int required(const char* call, int result) {
    if (result < 0) logging::internalInconsistency(call + (": " + std::generic_category().message(errno)), "Pool");
    return result;
}

}  // namespace queue
