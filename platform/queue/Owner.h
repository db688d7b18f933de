#pragma once

#include <sys/types.h>

#include <cstdint>
#include <tuple>

namespace queue {

// The process that work is done for: pid and start time, since a reused pid is another process. The default is this
// process itself.
struct Owner {
    pid_t process = 0;
    std::uint64_t startTime = 0;
    friend bool operator<(const Owner& a, const Owner& b) {
        return std::tie(a.process, a.startTime) < std::tie(b.process, b.startTime);
    }
};

}  // namespace queue
