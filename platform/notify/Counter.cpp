#include "platform/notify/Counter.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <string_view>
#include <utility>

#include "platform/file/File.h"
#include "platform/paths/Paths.h"
#include "platform/text/Format.h"

namespace notify {

namespace {

constexpr std::size_t kDigits = 20;  // of the largest count
constexpr int kMostReplacements = 16;
constexpr useconds_t kLockPause = 200;

using Text = std::array<char, kDigits + 1>;

// The lock of a file, until it goes. Held by everybody for some microseconds; whoever holds it longer (a process
// stopped in its post, or a hostile one) must not make the daemon wait.
class Lock {
public:
    Lock(int fd, int attempts) : fd_{fd} {
        for (int i = 0; i < attempts; ++i) {
            if (i > 0) usleep(kLockPause);
            held_ = flock(fd_, LOCK_EX | LOCK_NB) == 0;
            if (held_ || (errno != EWOULDBLOCK && errno != EINTR)) break;
        }
    }
    ~Lock() {
        if (held_) flock(fd_, LOCK_UN);
    }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    bool held() const { return held_; }

private:
    const int fd_;
    bool held_ = false;
};

bool isLinked(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && status.st_nlink > 0;
}

bool write(int fd, std::uint64_t count) {
    const std::string text = text::format("{:020}\n", count);
    return pwrite(fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
}

}  // namespace

std::string counterDirectory() {
    return paths::directories().runtime + "/notify";
}

std::string counterFileName(const std::string& notification) {
    return file::encodedName(notification);
}

value::Result<file::UniqueFd> openCounter(const std::string& notification) {
    if (auto error = file::makeDirectories(counterDirectory(), 0700)) return std::move(*error);
    const std::string path = counterDirectory() + "/" + counterFileName(notification);
    constexpr int kFlags = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    file::UniqueFd fd{open(path.c_str(), kFlags, 0600)};
    struct stat status {};
    if (!fd || fstat(fd.get(), &status) != 0) return value::posixError(errno, path);
    if (!S_ISREG(status.st_mode)) return value::posixError(EINVAL, path);
    return fd;
}

std::optional<value::Error> raiseCounter(const std::string& notification, std::uint64_t posts, int attempts) {
    for (int i = 0; i < kMostReplacements; ++i) {
        const auto fd = openCounter(notification);
        if (!fd) return fd.error();
        const Lock lock{fd->get(), attempts};
        if (!lock.held()) return value::posixError(errno, "locking the counter of " + notification);
        if (!isLinked(fd->get())) continue;
        if (!write(fd->get(), readCounter(fd->get()).value_or(0) + posts)) {
            return value::posixError(errno, "raising the counter of " + notification);
        }
        if (isLinked(fd->get())) return {};  // else nobody may have seen it
    }
    return value::posixError(ESTALE, "the counter of " + notification);
}

std::optional<std::uint64_t> readCounter(int fd) {
    // A write may be half done: what was read twice alike is whole. A write that comes later wakes the reader again.
    Text text{};
    ssize_t size = pread(fd, text.data(), text.size(), 0);
    for (int i = 0; i < kMostReplacements; ++i) {
        Text again{};
        const ssize_t sizeAgain = pread(fd, again.data(), again.size(), 0);
        if (size == sizeAgain && text == again) break;
        text = again;
        size = sizeAgain;
    }
    if (size == 0) return 0;
    std::uint64_t count = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + kDigits, count);
    const bool ours = size == static_cast<ssize_t>(text.size()) && error == std::errc{} &&
                      end == text.data() + kDigits && text.back() == '\n';
    return ours ? std::optional{count} : std::nullopt;
}

}  // namespace notify
