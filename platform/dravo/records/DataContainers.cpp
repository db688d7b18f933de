#include "platform/dravo/records/DataContainers.h"

#include <dirent.h>
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

int makeDirectory(const std::string& path) {
    if (::mkdir(path.c_str(), kPrivate) == 0) return 0;
    if (errno != EEXIST) return errno;
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return errno;
    return S_ISDIR(status.st_mode) ? 0 : ENOTDIR;
}

}  // namespace

void DataContainers::list() {
    const std::unique_ptr<DIR, int (*)(DIR*)> listing{::opendir(root_.c_str()), ::closedir};
    if (!listing) return;
    while (const dirent* const entry = ::readdir(listing.get())) {
        if (entry->d_type == DT_DIR) listed_.insert(entry->d_name);
    }
}

bool DataContainers::ensure(const std::string& identifier) {
    const std::string name = file::encodedName(identifier);
    if (listed_.contains(name)) return true;
    const int error = makeDataContainer(root_, identifier);
    if (error == 0) return true;
    if (!complained_) {
        logging::error(text::format("cannot make the data container of {}: {} (further failures are not logged)",
                                    identifier, std::strerror(error)));
    }
    complained_ = true;
    return false;
}

int makeDataContainer(const std::string& root, const std::string& identifier) {
    const std::string path = dataContainerPath(root, identifier);
    int error = makeDirectory(path);
    if (error == ENOENT && !file::makeDirectories(root, kPrivate)) error = makeDirectory(path);
    return error != 0 ? error : makeDirectory(path + "/tmp");
}

std::string dataContainerPath(const std::string& root, const std::string& identifier) {
    return root + "/" + file::encodedName(identifier);
}

}  // namespace dravo
