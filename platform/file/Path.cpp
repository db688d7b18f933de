#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "platform/file/Beneath.h"
#include "platform/file/File.h"
#include "platform/text/Format.h"

namespace file {

namespace {

constexpr std::size_t kLongest = 1023;
constexpr std::uint64_t kAtHand = 0x20 | RESOLVE_NO_SYMLINKS;  // RESOLVE_CACHED, which older headers lack

std::optional<std::string> failed(int errorNumber) {
    errno = errorNumber;
    return {};
}

// What /proc says of a file without a name ends so, and so may the name of one that has one.
constexpr std::string_view kDeleted = " (deleted)";

bool isStillThere(int fd, const std::string& path) {
    struct stat opened {};
    struct stat named {};
    return ::fstat(fd, &opened) == 0 && ::lstat(path.c_str(), &named) == 0 && isSameFile(opened, named);
}

enum class Asking : std::uint8_t { mayBlock, never };

// Where what is open lies, in the kernel's own words: no file system is asked, but where the words have two meanings.
std::optional<std::string> pathOf(int fd, Asking asking) {
    std::array<char, kLongest + 1> text;  // NOLINT(*-member-init): the kernel fills what is read
    const ssize_t length = ::readlink(text::format("/proc/self/fd/{}", fd).c_str(), text.data(), text.size());
    if (length < 0) return {};
    if (static_cast<std::size_t>(length) > kLongest) return failed(ENAMETOOLONG);
    std::string path{text.data(), static_cast<std::size_t>(length)};
    if (!path.starts_with('/')) return failed(ENOENT);  // no place in this process's tree
    if (!path.ends_with(kDeleted)) return path;
    if (asking == Asking::never) return failed(EAGAIN);
    if (!isStillThere(fd, path)) return failed(ENOENT);
    return path;
}

// Magic links lead into other processes' trees, where a path says nothing.
UniqueFd openToResolve(const std::string& path, std::uint64_t resolve, int directory = AT_FDCWD) {
    open_how how{};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_NO_MAGICLINKS | resolve;
    return UniqueFd{static_cast<int>(::syscall(SYS_openat2, directory, path.c_str(), &how, sizeof how))};
}

bool isLackingCall(int errorNumber) {  // filters of older containers answer EPERM for calls that they do not know
    return errorNumber == ENOSYS || errorNumber == EPERM;
}

// Link by link, where the kernel does not do it in one call.
std::optional<std::string> resolveByComponents(const std::string& path) {
    struct Free {
        void operator()(char* text) const { std::free(text); }
    };
    const std::unique_ptr<char, Free> resolved{::realpath(path.c_str(), nullptr)};
    if (!resolved) return {};
    std::string result{resolved.get()};
    if (result.size() > kLongest) return failed(ENAMETOOLONG);
    return result;
}

// Whether the kernel would take it.
bool isPath(const std::string& path) {
    const bool isText = path.find('\0') == std::string::npos;
    if (isText && path.size() < PATH_MAX) return true;
    errno = isText ? ENAMETOOLONG : EINVAL;
    return false;
}

// What cannot be synced (some file systems have no way to, some directories may not be read) is as durable as it gets.
void syncDirectoryAbove(const std::string& path) {
    const std::size_t slash = path.find_last_of('/', path.find_last_not_of('/'));
    const std::string above = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const UniqueFd directory{::open(above.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (directory) static_cast<void>(::fsync(directory.get()));
}

}  // namespace

std::optional<std::string> canonicalPath(const std::string& path) {
    if (!isPath(path)) return {};
    const UniqueFd opened = openToResolve(path, 0);
    if (opened) return pathOf(opened.get(), Asking::mayBlock);
    return isLackingCall(errno) ? resolveByComponents(path) : std::nullopt;
}

std::optional<std::string> canonicalPathAtHand(const std::string& path) {
    if (!isPath(path)) return {};
    const UniqueFd opened = openToResolve(path, kAtHand);
    if (opened) return pathOf(opened.get(), Asking::never);
    // A link is on the way, or the kernel knows no such way of opening.
    if (errno == ELOOP || errno == EINVAL || isLackingCall(errno)) errno = EAGAIN;
    return {};
}

std::optional<std::string> canonicalPathWithin(const std::string& directory, const std::string& path) {
    if (!isPath(path)) return {};
    if (!isBeneath(path, directory)) return failed(EXDEV);
    const UniqueFd base{::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
    if (!base) return {};
    const UniqueFd opened = openWithin(base.get(), directory, nameBeneath(path, directory));
    return opened ? pathOf(opened.get(), Asking::mayBlock) : std::nullopt;
}

UniqueFd openWithin(int directory, const std::string& directoryPath, const std::string& name) {
    if (!isPath(name)) return {};
    UniqueFd opened = openToResolve(name, RESOLVE_NO_XDEV, directory);
    if (!opened && errno == EXDEV) {
        // An absolute link begins at the root, which may be another mount. It is told by its text.
        std::array<char, kLongest + 1> text;  // NOLINT(*-member-init): the kernel fills what is read
        const ssize_t length = ::readlinkat(directory, name.c_str(), text.data(), text.size());
        const std::string target{text.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
        if (!isBeneath(target, directoryPath)) {
            errno = EXDEV;
            return {};
        }
        opened = openToResolve(nameBeneath(target, directoryPath), RESOLVE_NO_XDEV, directory);
    }
    if (!opened && isLackingCall(errno)) opened = UniqueFd{::openat(directory, name.c_str(), O_PATH | O_CLOEXEC)};
    return opened;
}

std::optional<std::string> pathOf(const UniqueFd& opened) {
    return pathOf(opened.get(), Asking::mayBlock);
}

std::optional<value::Error> makeDirectories(const std::string& path, mode_t mode, Durability durability) {
    const auto failure = [&](int errorNumber) { return value::posixError(errorNumber, "making directory " + path); };
    if (path.find('\0') != std::string::npos) return failure(EINVAL);
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0) {
        if (!S_ISDIR(status.st_mode)) return failure(ENOTDIR);
        // Whoever made it may have been killed before it was synced.
        if (durability == Durability::synced) syncDirectoryAbove(path);
        return {};
    }
    // From the top: what exists answers EEXIST, even where nothing may be made.
    for (std::size_t end = 0; end < path.size();) {
        end = std::min(path.find('/', end + 1), path.size());
        const std::string made = path.substr(0, end);
        if (::mkdir(made.c_str(), mode) != 0 && errno != EEXIST) return failure(errno);
        if (durability == Durability::synced) syncDirectoryAbove(made);
    }
    if (::stat(path.c_str(), &status) != 0) return failure(errno);
    if (!S_ISDIR(status.st_mode)) return failure(ENOTDIR);
    return {};
}

std::optional<std::string> exposureOf(const std::string& directory) {
    struct stat status {};
    if (::stat(directory.c_str(), &status) != 0) return {};
    if (status.st_uid != ::geteuid() && status.st_uid != 0) {
        return text::format("{} is owned by user {}", directory, status.st_uid);
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return text::format("others may write in {}", directory);
    return {};
}

}  // namespace file
