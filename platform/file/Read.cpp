#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <iterator>

#include "platform/file/Beneath.h"
#include "platform/file/File.h"

namespace file {

namespace {

// Opening must neither wait for the other end of a pipe nor make a terminal ours.
constexpr int kOpenFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kTwoTicks = 20'000'000;  // of the slowest usual clock, 100 a second
constexpr std::size_t kChunk = std::size_t{4} << 10;

std::int64_t nanoseconds(const timespec& time) {
    return std::int64_t{time.tv_sec} * kSecond + time.tv_nsec;
}

value::Error failure(int errorNumber, const std::string& path) {
    return value::posixError(errorNumber, "reading " + path);
}

std::optional<value::Error> refuseUnlessRegular(int fd, struct stat& status, const std::string& path) {
    if (::fstat(fd, &status) != 0) return failure(errno, path);
    if (S_ISREG(status.st_mode)) return {};
    if (S_ISDIR(status.st_mode)) return failure(EISDIR, path);
    return value::Error{"posix", EINVAL, "reading " + path + ": not a regular file"};
}

ssize_t readSome(int fd, char* into, std::size_t size) {
    ssize_t got;
    do got = ::read(fd, into, size);
    while (got < 0 && errno == EINTR);
    return got;
}

// Reads to the end of the file, whatever size it was said to have: a file may grow meanwhile, and some file systems say
// 0. Asking for one byte more than that size makes one call do: it returns just what was said when nothing changed.
int readToEnd(int fd, std::size_t said, std::size_t limit, std::string& bytes) {
    std::size_t have = 0;
    bytes.resize(said + 1);
    for (;;) {
        const ssize_t got = readSome(fd, bytes.data() + have, bytes.size() - have);
        if (got < 0) return errno;
        const bool firstCall = have == 0;
        have += static_cast<std::size_t>(got);
        if (have > limit) return EFBIG;
        if (got == 0 || (firstCall && have == said)) break;
        // At least doubled: what the kernel makes up on the fly is a few pages, and says 0.
        if (have == bytes.size()) bytes.resize(std::min(have + std::max(have, kChunk), limit + 1));
    }
    bytes.resize(have);
    return 0;
}

value::Result<Contents> readOpened(const UniqueFd& fd, const std::string& path, std::size_t limit) {
    struct stat status {};
    if (auto error = refuseUnlessRegular(fd.get(), status, path)) return std::move(*error);
    if (static_cast<std::uint64_t>(status.st_size) > limit) return failure(EFBIG, path);
    Contents contents;
    contents.stamp = stampOf(status);
    contents.settled = settled(contents.stamp);
    contents.owner = status.st_uid;
    contents.mode = status.st_mode;
    const int error = readToEnd(fd.get(), static_cast<std::size_t>(status.st_size), limit, contents.bytes);
    if (error != 0) return failure(error, path);
    return contents;
}

}  // namespace

Stamp stampOf(const struct stat& status) {
    return {status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_mtim), nanoseconds(status.st_ctim)};
}

std::optional<Stamp> stampOf(const std::string& path) {
    struct stat status {};
    if (path.find('\0') != std::string::npos || ::stat(path.c_str(), &status) != 0) return {};
    return stampOf(status);
}

bool mayPass(int errorNumber) {
    constexpr int kErrors[] = {EMFILE, ENFILE, ENOMEM, EIO, ESTALE, ETIMEDOUT, EAGAIN};
    return std::find(std::begin(kErrors), std::end(kErrors), errorNumber) != std::end(kErrors);
}

bool settled(const Stamp& stamp) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME_COARSE, &now);  // the clock that file systems take their times from
    // Every write moves the time of change, and nobody can set it, as the time of modification can be set to the
    // future.
    return nanoseconds(now) - stamp.changed > kTwoTicks;
}

value::Result<Contents> readRegular(const std::string& path, std::size_t limit, FinalLink link) {
    if (path.find('\0') != std::string::npos) return failure(EINVAL, path);
    const UniqueFd fd{::open(path.c_str(), kOpenFlags | (link == FinalLink::refused ? O_NOFOLLOW : 0))};
    if (!fd) return failure(errno, path);
    return readOpened(fd, path, limit);
}

value::Result<Contents> readRegularBeneath(int directory, const std::string& relativePath, std::size_t limit) {
    const auto fd = openBeneath(directory, relativePath, kOpenFlags);
    if (!fd) return fd.error();
    return readOpened(*fd, relativePath, limit);
}

value::Result<UniqueFd> openRegularBeneath(int directory, const std::string& relativePath) {
    auto fd = openBeneath(directory, relativePath, kOpenFlags);
    if (!fd) return fd;
    struct stat status {};
    if (auto error = refuseUnlessRegular(fd->get(), status, relativePath)) return std::move(*error);
    return fd;
}

}  // namespace file
