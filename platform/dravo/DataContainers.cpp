#include "platform/dravo/DataContainers.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "platform/file/File.h"
#include "platform/logging/Log.h"
#include "platform/text/Format.h"

namespace dravo {

namespace {

constexpr mode_t kPrivate = 0700;

bool makeDirectoryAt(int parent, const std::string& name) {
    if (::mkdirat(parent, name.c_str(), kPrivate) == 0) return true;
    if (errno != EEXIST) return false;
    struct stat status {};
    if (::fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return false;
    if (S_ISDIR(status.st_mode)) return true;
    errno = ENOTDIR;
    return false;
}

}  // namespace

DataContainers::DataContainers(const std::string& root) {
    if (file::makeDirectories(root, kPrivate)) return;  // ensure() then fails, and says so
    root_ = file::UniqueFd{::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (!root_) return;
    const std::unique_ptr<DIR, int (*)(DIR*)> listing{::opendir(root.c_str()), ::closedir};
    if (!listing) return;
    while (const dirent* const entry = ::readdir(listing.get())) {
        if (entry->d_type == DT_DIR) listed_.insert(entry->d_name);
    }
}

bool DataContainers::ensure(const std::string& identifier) {
    const std::string name = file::encodedName(identifier);
    if (listed_.contains(name) || make(name)) return true;
    if (!complained_) {
        logging::error(text::format("cannot make the data container of {}: {} (further failures are not logged)",
                                    identifier, std::strerror(errno)));
    }
    complained_ = true;
    return false;
}

bool DataContainers::make(const std::string& name) const {
    return makeDirectoryAt(root_.get(), name) && makeDirectoryAt(root_.get(), name + "/tmp");
}

std::string dataContainerPath(const std::string& root, const std::string& identifier) {
    return root + "/" + file::encodedName(identifier);
}

}  // namespace dravo
