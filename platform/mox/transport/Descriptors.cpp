#include "platform/mox/transport/Descriptors.h"

#include <dirent.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <limits>
#include <memory>

namespace mox {

namespace {

// A save needs three at a time, reading a bundle a few more, and several may be at it at once.
constexpr rlim_t kMostReserved = 64;
constexpr rlim_t kLeastReserved = 16;

rlim_t reserved(rlim_t limit) {
    return std::clamp(limit / 8, kLeastReserved, kMostReserved);
}

// Newer kernels tell the number as the size of the directory; on others its entries are counted.
std::size_t openDescriptors() {
    constexpr char kPath[] = "/proc/self/fd";
    struct stat status {};
    if (::stat(kPath, &status) == 0 && status.st_size > 0) return static_cast<std::size_t>(status.st_size);
    const std::unique_ptr<DIR, int (*)(DIR*)> entries{::opendir(kPath), &::closedir};
    std::size_t count = 0;
    while (entries && ::readdir(entries.get()) != nullptr) ++count;
    return count;
}

}  // namespace

void raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
    const rlimit raised{limit.rlim_max, limit.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &raised);
}

std::ptrdiff_t freeDescriptors() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
    const rlim_t most = std::min<rlim_t>(limit.rlim_cur, std::numeric_limits<std::ptrdiff_t>::max());
    return static_cast<std::ptrdiff_t>(most) - static_cast<std::ptrdiff_t>(openDescriptors() + reserved(most));
}

}  // namespace mox
