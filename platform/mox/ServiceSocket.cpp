#include "platform/mox/ServiceSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include "platform/file/File.h"
#include "platform/paths/Paths.h"
#include "platform/text/Format.h"

namespace mox {

namespace {

constexpr int kFirstPassed = 3;  // the protocol's first descriptor

// Who comes next waits for all who came before, each of whom costs a few microseconds, or some fifty when it stays.
constexpr int kBacklog = 512;

template <typename Number>
Number environmentNumber(const char* name) {
    const char* const text = std::getenv(name);
    Number number{};
    if (text != nullptr) std::from_chars(text, text + std::strlen(text), number);
    return number;
}

bool isListening(int socket) {
    const auto option = [socket](int name) {
        int value = -1;
        socklen_t size = sizeof value;
        return ::getsockopt(socket, SOL_SOCKET, name, &value, &size) == 0 ? value : -1;
    };
    return option(SO_DOMAIN) == AF_UNIX && option(SO_TYPE) == SOCK_STREAM && option(SO_ACCEPTCONN) == 1;
}

std::string_view boundName(int socket, sockaddr_un& address) {
    socklen_t size = sizeof address;
    if (::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) return {};
    const std::string_view path{address.sun_path, ::strnlen(address.sun_path, sizeof address.sun_path)};
    return path.substr(path.rfind('/') + 1);
}

// The service manager hands over listening sockets as descriptors 3 and up, and says for which process, how many, and
// by which names. A socket fits that has the service's name, or is bound to a path that ends in it.
file::UniqueFd passedSocket(const std::string& name) {
    if (environmentNumber<pid_t>("LISTEN_PID") != ::getpid()) return {};
    const int count = environmentNumber<int>("LISTEN_FDS");
    const char* const text = std::getenv("LISTEN_FDNAMES");
    std::string_view names{text != nullptr ? text : ""};
    for (int fd = kFirstPassed; fd < kFirstPassed + std::clamp(count, 0, 64); ++fd) {
        const std::string_view fdName = names.substr(0, names.find(':'));
        names.remove_prefix(std::min(fdName.size() + 1, names.size()));
        sockaddr_un address{};
        if (!isListening(fd) || (fdName != name && boundName(fd, address) != name)) continue;
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
        ::listen(fd, kBacklog);
        return file::UniqueFd{fd};
    }
    return {};
}

}  // namespace

bool isServiceName(std::string_view name) {
    return !name.empty() && name.size() <= kLongestServiceName && name.front() != '.' &&
           std::none_of(name.begin(), name.end(), [](unsigned char c) { return c == '/' || c < 0x20 || c == 0x7f; });
}

value::Result<file::UniqueFd> openRuntimeDirectory() {
    const std::string& path = paths::directories().runtime;
    if (auto error = file::makeDirectories(path, 0700)) return *std::move(error);
    file::UniqueFd directory{::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
    struct stat status {};
    if (!directory || ::fstat(directory.get(), &status) != 0) return value::posixError(errno, path);
    if (status.st_uid != ::geteuid())
        return value::Error{"mox", EACCES, text::format("{}: owned by user {}", path, status.st_uid)};
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return value::Error{"mox", EACCES, text::format("{}: others may write there", path)};
    return directory;
}

sockaddr_un serviceAddress(int directory, const std::string& name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = text::format("/proc/self/fd/{}/{}", directory, name);
    std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path - 1));
    return address;
}

value::Result<std::unique_ptr<ServiceSocket>> ServiceSocket::open(const std::string& name) {
    if (!isServiceName(name)) return value::posixError(EINVAL, text::format("service name \"{}\"", name));
    auto directory = openRuntimeDirectory();
    if (!directory) return directory.error();

    auto lock = lock::LockFile::take(text::format("{}/{}.lock", paths::directories().runtime, name));
    if (!lock) {
        return value::Error{"mox", lock.error().code,
                            text::format("service {}: {}", name, lock.error().localizedDescription())};
    }

    std::unique_ptr<ServiceSocket> service{new ServiceSocket{name, *std::move(directory), *std::move(lock)}};
    service->socket_ = passedSocket(name);
    service->isPassed_ = static_cast<bool>(service->socket_);
    if (!service->isPassed_) {
        if (auto error = service->bind()) return *std::move(error);
    }
    return service;
}

std::optional<value::Error> ServiceSocket::bind() {
    const std::string what = text::format("socket of service {}", name_);
    struct stat status {};
    if (::fstatat(directory_.get(), name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISSOCK(status.st_mode)) {
        return value::Error{"mox", ENOTSOCK,
                            text::format("{}: what lies at {}/{} is no socket; move it away, or use another name", what,
                                         paths::directories().runtime, name_)};
    }
    if (::unlinkat(directory_.get(), name_.c_str(), 0) != 0 && errno != ENOENT) return value::posixError(errno, what);
    file::UniqueFd socket{::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    const sockaddr_un address = serviceAddress(directory_.get(), name_);
    // The mode that the socket has while it is bound is the file's.
    if (!socket || ::fchmod(socket.get(), 0600) != 0 ||
        ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(socket.get(), kBacklog) != 0)
        return value::posixError(errno, what);
    socket_ = std::move(socket);
    return {};
}

ServiceSocket::~ServiceSocket() {
    if (socket_ && !isPassed_) ::unlinkat(directory_.get(), name_.c_str(), 0);
}

}  // namespace mox
