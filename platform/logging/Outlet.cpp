#include "platform/logging/Outlet.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "platform/text/Format.h"

namespace logging {
namespace {

const bool kClosedAtStart = ::fcntl(STDERR_FILENO, F_GETFD) < 0 && errno == EBADF;

// A pipe whose reader has gone raises a signal, which would end the process for the sake of its log.
class WithoutSigpipe {
public:
    WithoutSigpipe() {
        ::sigemptyset(&sigpipe_);
        ::sigaddset(&sigpipe_, SIGPIPE);
        ::pthread_sigmask(SIG_BLOCK, &sigpipe_, &before_);
    }
    WithoutSigpipe(const WithoutSigpipe&) = delete;
    WithoutSigpipe& operator=(const WithoutSigpipe&) = delete;
    ~WithoutSigpipe() {
        if (raised_ && ::sigismember(&before_, SIGPIPE) == 0) {
            const timespec now{};
            ::sigtimedwait(&sigpipe_, nullptr, &now);
        }
        ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }

    ssize_t write(int fd, std::string_view bytes) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        raised_ = written < 0 && errno == EPIPE;
        return written;
    }

private:
    sigset_t sigpipe_{};
    sigset_t before_{};
    bool raised_ = false;
};

bool isNullDevice(const struct stat& status) {
    return S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
}

// The journal names the socket that it gave as "device:inode" of the file.
bool isNamedAsJournal(const struct stat& status) {
    const char* named = std::getenv("JOURNAL_STREAM");
    return named != nullptr && text::format("{}:{}", status.st_dev, status.st_ino) == named;
}

file::UniqueFd connectTo(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return {};
    std::memcpy(address.sun_path, path.data(), path.size());
    file::UniqueFd socket{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    if (!socket || ::connect(socket.get(), generic, sizeof address) != 0) return {};
    return socket;
}

std::string_view nameOf(Level level) {
    switch (level) {
        case Level::error: return "error";
        case Level::warning: return "warning";
        case Level::notice: return "notice";
        case Level::info: return "info";
        case Level::debug: return "debug";
    }
    return "notice";
}

}  // namespace

void Outlet::look() {
    struct stat status {};
    if (kClosedAtStart || ::fstat(STDERR_FILENO, &status) != 0) status = {};
    if (kind_ != Kind::unknown && status.st_dev == device_ && status.st_ino == inode_) return;
    become(status);
}

void Outlet::become(const struct stat& standardError) {
    device_ = standardError.st_dev;
    inode_ = standardError.st_ino;
    isJournal_ = isNamedAsJournal(standardError);
    own_.reset();
    rest_.clear();
    if (standardError.st_mode == 0 || isNullDevice(standardError)) {
        kind_ = Kind::systemLog;
    } else if (S_ISSOCK(standardError.st_mode)) {
        kind_ = Kind::socket;
    } else if (S_ISFIFO(standardError.st_mode) || S_ISCHR(standardError.st_mode)) {
        own_ = file::UniqueFd{::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY)};
        kind_ = own_ ? Kind::stream : Kind::shared;
    } else {
        kind_ = Kind::file;
    }
}

ssize_t Outlet::attempt(std::string_view bytes) const {
    switch (kind_) {
        case Kind::socket: return ::send(STDERR_FILENO, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        case Kind::stream: return WithoutSigpipe{}.write(own_.get(), bytes);
        case Kind::shared: {
            pollfd room{STDERR_FILENO, POLLOUT, 0};
            if (::poll(&room, 1, 0) != 1 || (room.revents & POLLOUT) == 0) return -1;
            return WithoutSigpipe{}.write(STDERR_FILENO, bytes.substr(0, PIPE_BUF));
        }
        default: return ::write(STDERR_FILENO, bytes.data(), bytes.size());
    }
}

bool Outlet::put(std::string_view bytes) {
    while (!rest_.empty()) {
        const ssize_t taken = attempt(rest_);
        if (taken <= 0) return false;
        rest_.erase(0, static_cast<std::size_t>(taken));
    }
    for (bool begun = false; !bytes.empty(); begun = true) {
        const ssize_t taken = attempt(bytes);
        if (taken <= 0) {
            if (begun) rest_ = bytes;
            return begun;
        }
        bytes.remove_prefix(static_cast<std::size_t>(taken));
    }
    return true;
}

bool Outlet::putToSystemLog(Level level, std::string_view line) {
    std::array<char, 32> time{};
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    std::strftime(time.data(), time.size(), "%b %e %H:%M:%S", &local);
    const std::string datagram = text::format("<{}>{} {}[{}]: {}", LOG_DAEMON | static_cast<int>(level), time.data(),
                                              program_invocation_short_name, ::getpid(), line);
    for (const bool again : {true, false}) {  // the log's reader may have been restarted since
        if (!own_) own_ = connectTo(systemLogPath_);
        if (!own_) return false;
        if (::send(own_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL) >= 0) return true;
        if (errno == EAGAIN || errno == ENOBUFS) return false;
        own_.reset();
        if (!again) break;
    }
    return false;
}

std::string Outlet::prefixed(Level level, std::string_view line) const {
    if (kind_ == Kind::file) {  // nobody else says when it was, nor how much it matters
        timespec now{};
        ::clock_gettime(CLOCK_REALTIME, &now);
        std::tm utc{};
        ::gmtime_r(&now.tv_sec, &utc);
        std::array<char, 32> time{};
        std::strftime(time.data(), time.size(), "%Y-%m-%dT%H:%M:%S", &utc);
        return text::format("{}.{:03}Z {}: {}\n", time.data(), now.tv_nsec / 1'000'000, nameOf(level), line);
    }
    return isJournal_ ? text::format("<{}>{}\n", static_cast<int>(level), line) : text::format("{}\n", line);
}

void Outlet::write(Level level, std::string_view line) {
    look();
    const std::string count =
        dropped_ > 0 ? text::format("lines dropped because the log was full: {}", dropped_) : std::string{};
    bool written = false;
    if (kind_ == Kind::systemLog) {
        written = (count.empty() || putToSystemLog(Level::warning, count)) && putToSystemLog(level, line);
    } else {
        // In one piece: as long as only the count found room, it would be written over and over.
        written = put((count.empty() ? count : prefixed(Level::warning, count)) + prefixed(level, line));
    }
    dropped_ = written ? 0 : dropped_ + 1;
}

}  // namespace logging
