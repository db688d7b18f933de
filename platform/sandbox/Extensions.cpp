#include "platform/sandbox/Extensions.h"

#include <fcntl.h>
#include <sys/random.h>

#include <cerrno>
#include <utility>

#include "platform/file/Beneath.h"
#include "platform/file/File.h"
#include "platform/file/Identity.h"

namespace sandbox {

namespace {

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
    const bool atRoot = path == extension.path;
    if (!atRoot && !file::isBeneath(path, extension.path)) return value::posixError(EACCES, path);

    // First without opening it for reading: what is another file by now is not even touched.
    const auto root = file::openSame(extension.path, extension.identity, O_PATH | O_CLOEXEC);
    if (!root) return root.error();
    if (!atRoot) return file::openRegularBeneath(root->get(), file::nameBeneath(path, extension.path));
    const file::UniqueFd top{::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC)};
    if (!top) return value::posixError(errno, "/");
    auto opened = file::openRegularBeneath(top.get(), path.substr(1));
    if (opened && file::identityOf(opened->get()) != extension.identity) return value::posixError(ESTALE, path);
    return opened;
}

}  // namespace sandbox
