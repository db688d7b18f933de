#include "platform/sandbox/Extensions.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "platform/file/Beneath.h"
#include "platform/file/File.h"

namespace sandbox {

namespace {

// The opened file when it is the very one that the extension is for.
value::Result<file::UniqueFd> ifStill(const Extension& extension, value::Result<file::UniqueFd> opened) {
    struct stat status {};
    if (!opened) return opened;
    if (fstat(opened->get(), &status) != 0) return value::posixError(errno, extension.path);
    const bool same = status.st_dev == extension.device && status.st_ino == extension.inode;
    return same ? std::move(opened) : value::posixError(ESTALE, extension.path);
}

std::int64_t randomHandle() {
    std::int64_t handle = 0;
    while (handle <= 0) {
        if (getrandom(&handle, sizeof handle, 0) != sizeof handle) return kRefused;
        handle &= INT64_MAX;
    }
    return handle;
}

}  // namespace

std::int64_t Extensions::consume(std::string_view token) {
    if (byHandle_.size() >= kMostHandles) return kRefused;
    auto extension = unseal(token);
    const std::int64_t handle = extension ? randomHandle() : kRefused;
    if (handle == kRefused || !byHandle_.emplace(handle, std::move(*extension)).second) return kRefused;
    return handle;
}

void Extensions::release(std::int64_t handle) {
    byHandle_.erase(handle);
}

std::optional<Extensions> Extensions::only(std::int64_t handle) const {
    const auto found = byHandle_.find(handle);
    if (found == byHandle_.end()) return {};
    Extensions one;
    one.byHandle_.insert(*found);
    return one;
}

value::Result<file::UniqueFd> Extensions::open(std::int64_t handle, const std::string& path) const {
    const auto found = byHandle_.find(handle);
    if (found == byHandle_.end()) return value::posixError(EBADF, "no such handle");
    const Extension& extension = found->second;
    const std::size_t rootSize = extension.path.size();
    const bool atRoot = path == extension.path;
    if (!atRoot && (!path.starts_with(extension.path) || path[rootSize] != '/')) return value::posixError(EACCES, path);

    const file::UniqueFd top{::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC)};
    if (!top) return value::posixError(errno, "/");
    const std::string fromTop = extension.path.substr(1);
    if (atRoot) return ifStill(extension, file::openRegularBeneath(top.get(), fromTop));
    const auto root = ifStill(extension, file::openBeneath(top.get(), fromTop, O_PATH | O_CLOEXEC));
    if (!root) return root.error();
    return file::openRegularBeneath(root->get(), path.substr(rootSize + 1));
}

}  // namespace sandbox
