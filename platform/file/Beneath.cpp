#include "platform/file/Beneath.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>

#include <cerrno>
#include <string_view>
#include <vector>

namespace file {

namespace {

// The names between the separators, without empty ones and ".". An error number when the path is none that may be
// followed here: decided on the text, so that both ways of opening refuse the same.
int split(const std::string& path, std::vector<std::string>& names) {
    if (path.empty()) return ENOENT;
    if (path.find('\0') != std::string::npos) return EINVAL;
    if (path.front() == '/') return EXDEV;
    for (std::size_t from = 0; from <= path.size();) {
        const std::size_t to = std::min(path.find('/', from), path.size());
        const std::string_view name = std::string_view{path}.substr(from, to - from);
        if (name == "..") return EXDEV;
        if (!name.empty() && name != ".") names.emplace_back(name);
        from = to + 1;
    }
    return names.empty() ? EISDIR : 0;
}

UniqueFd openInOneCall(int directory, const std::string& path, int flags) {
    open_how how{};
    how.flags = static_cast<std::uint64_t>(flags);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    return UniqueFd{static_cast<int>(::syscall(SYS_openat2, directory, path.c_str(), &how, sizeof how))};
}

UniqueFd openByComponents(int directory, const std::vector<std::string>& names, int flags) {
    UniqueFd at;
    for (std::size_t i = 0; i < names.size(); ++i) {
        const int step = i + 1 < names.size() ? O_PATH | O_DIRECTORY | O_CLOEXEC : flags;
        UniqueFd next{::openat(at ? at.get() : directory, names[i].c_str(), step | O_NOFOLLOW)};
        if (!next) return {};
        at = std::move(next);
    }
    return at;
}

}  // namespace

value::Result<UniqueFd> openBeneath(int directory, const std::string& relativePath, int flags) {
    std::vector<std::string> names;
    if (const int refused = split(relativePath, names); refused != 0) return value::posixError(refused, relativePath);
    UniqueFd opened = openInOneCall(directory, relativePath, flags);
    // Filters of older containers answer EPERM for calls that they do not know.
    if (!opened && (errno == ENOSYS || errno == EPERM)) opened = openByComponents(directory, names, flags);
    if (!opened) return value::posixError(errno, relativePath);
    return opened;
}

}  // namespace file
