#include "platform/file/Beneath.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string_view>
#include <utility>

namespace file {

namespace {

// Takes the next component off the path, passing over empty ones and "."; empty at the end.
std::string_view nextName(std::string_view& path) {
    while (!path.empty()) {
        const std::size_t end = std::min(path.find('/'), path.size());
        const std::string_view name = path.substr(0, end);
        path.remove_prefix(std::min(end + 1, path.size()));
        if (!name.empty() && name != ".") return name;
    }
    return {};
}

// An error number when the path is none that may be followed here, else 0: decided on the text, so that both ways of
// opening refuse the same.
int refusalOf(std::string_view path) {
    if (path.empty()) return ENOENT;
    if (path.find('\0') != std::string_view::npos) return EINVAL;
    if (path.front() == '/') return EXDEV;
    std::string_view name = nextName(path);
    if (name.empty()) return EISDIR;
    for (; !name.empty(); name = nextName(path)) {
        if (name == "..") return EXDEV;
    }
    return 0;
}

UniqueFd openInOneCall(int directory, const std::string& path, int flags, std::uint64_t resolve) {
    open_how how{};
    how.flags = static_cast<std::uint64_t>(flags);
    how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS | resolve;
    return UniqueFd{static_cast<int>(::syscall(SYS_openat2, directory, path.c_str(), &how, sizeof how))};
}

UniqueFd openByComponents(int directory, std::string_view path, int flags) {
    UniqueFd at;
    for (std::string_view name = nextName(path); !name.empty();) {
        const std::string_view following = nextName(path);
        const int step = following.empty() ? flags : O_PATH | O_DIRECTORY | O_CLOEXEC;
        UniqueFd next{::openat(at ? at.get() : directory, std::string{name}.c_str(), step | O_NOFOLLOW)};
        if (!next) return {};
        at = std::move(next);
        name = following;
    }
    return at;
}

bool isLackingCall(int errorNumber) {  // filters of older containers answer EPERM for calls that they do not know
    return errorNumber == ENOSYS || errorNumber == EPERM;
}

}  // namespace

bool isBeneath(std::string_view path, std::string_view directory) {
    if (directory.empty() || path.size() <= directory.size() || !path.starts_with(directory)) return false;
    return directory == "/" || path[directory.size()] == '/';
}

std::string nameBeneath(std::string_view path, std::string_view directory) {
    if (!isBeneath(path, directory)) return {};
    return std::string{path.substr(directory == "/" ? 1 : directory.size() + 1)};
}

value::Result<UniqueFd> openBeneath(int directory, const std::string& relativePath, int flags) {
    if (const int refused = refusalOf(relativePath); refused != 0) return value::posixError(refused, relativePath);
    UniqueFd opened = openInOneCall(directory, relativePath, flags, RESOLVE_BENEATH);
    if (!opened && isLackingCall(errno)) opened = openByComponents(directory, relativePath, flags);
    if (!opened) return value::posixError(errno, relativePath);
    return opened;
}

value::Result<UniqueFd> openWithoutLinks(const std::string& path, int flags) {
    if (!path.starts_with('/')) return value::posixError(EINVAL, path);
    const int refused = path == "/" ? 0 : refusalOf(std::string_view{path}.substr(1));
    if (refused != 0) return value::posixError(refused, path);
    UniqueFd opened = openInOneCall(AT_FDCWD, path, flags, 0);
    if (!opened && isLackingCall(errno)) {
        opened = UniqueFd{::open("/", path == "/" ? flags : O_PATH | O_DIRECTORY | O_CLOEXEC)};
        if (opened && path != "/") opened = openByComponents(opened.get(), path, flags);
    }
    if (!opened) return value::posixError(errno, path);
    return opened;
}

}  // namespace file
