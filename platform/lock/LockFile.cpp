#include "platform/lock/LockFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <thread>

#include "platform/file/File.h"
#include "platform/text/Format.h"

namespace lock {

namespace {

// The pid that the holder wrote, or a word for "somebody" while it has not yet. Only digits are taken over: anyone who
// can write the file could put any text there.
std::string holder(int descriptor) {
    std::array<char, 16> buffer{};
    const ssize_t got = ::pread(descriptor, buffer.data(), buffer.size(), 0);
    const std::string_view text{buffer.data(), got > 0 ? static_cast<std::size_t>(got) : 0};
    const std::string_view digits = text.substr(0, std::min(text.find_first_not_of("0123456789"), text.size()));
    return digits.empty() ? "another process" : text::format("process {}", digits);
}

}  // namespace

value::Result<LockFile> LockFile::take(const std::string& path) {
    constexpr int kFlags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    file::UniqueFd descriptor{::open(path.c_str(), O_RDWR | O_CREAT | kFlags, 0600)};
    if (!descriptor && (errno == EROFS || errno == EACCES)) {
        const int reason = errno;
        descriptor = file::UniqueFd{::open(path.c_str(), O_RDONLY | kFlags)};
        if (!descriptor) errno = reason;
    }
    if (!descriptor) return value::posixError(errno, "cannot open the lock " + path);
    struct stat status {};
    if (::fstat(descriptor.get(), &status) != 0) return value::posixError(errno, "cannot examine the lock " + path);
    if (!S_ISREG(status.st_mode)) return value::posixError(EINVAL, "the lock is no regular file: " + path);

    if (::flock(descriptor.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) return value::posixError(errno, "cannot lock " + path);
        return value::Error{"posix", EWOULDBLOCK, text::format("{} holds the lock {}", holder(descriptor.get()), path)};
    }

    // Who holds it is for people to read; on a full disk the lock holds all the same.
    const std::string pid = text::format("{}\n", ::getpid());
    if (::ftruncate(descriptor.get(), 0) == 0) {
        [[maybe_unused]] const ssize_t written = ::pwrite(descriptor.get(), pid.data(), pid.size(), 0);
    }
    return LockFile{std::move(descriptor)};
}

bool LockFile::isAt(const std::string& path) const {
    struct stat held {};
    struct stat there {};
    return ::fstat(descriptor_.get(), &held) == 0 && ::lstat(path.c_str(), &there) == 0 &&
           file::isSameFile(held, there);
}

// By trying again: the kernel's own wait cannot be given an end without a signal.
value::Result<LockFile> LockFile::takeWithin(const std::string& path, std::chrono::milliseconds patience) {
    constexpr std::chrono::milliseconds kPause{2};
    const auto deadline = std::chrono::steady_clock::now() + patience;
    for (;;) {
        auto taken = take(path);
        if (taken || taken.error().code != EWOULDBLOCK || std::chrono::steady_clock::now() >= deadline) return taken;
        std::this_thread::sleep_for(kPause);
    }
}

}  // namespace lock
