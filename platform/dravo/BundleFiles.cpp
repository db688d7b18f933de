#include "platform/dravo/BundleFiles.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "platform/bundle/Bundle.h"
#include "platform/entitlements/Entitlements.h"
#include "platform/file/UniqueFd.h"
#include "platform/mounts/Mounts.h"

namespace dravo {

namespace {

file::Stamp stampIn(int directory, const char* name) {
    struct stat status {};
    const bool isThere = ::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0;
    return isThere ? file::stampOf(status) : file::Stamp{};
}

}  // namespace

std::shared_ptr<const BundleFiles> readBundleFiles(const std::string& path) {
    if (mounts::mayNeverAnswer(path)) return nullptr;
    const file::UniqueFd directory{::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)};
    if (!directory) return nullptr;
    const file::Stamp info = stampIn(directory.get(), bundle::kInfoFile);
    const file::Stamp held = stampIn(directory.get(), entitlements::kFile);
    if (info == file::Stamp{} || !file::settled(info) || (held != file::Stamp{} && !file::settled(held)))
        return nullptr;
    return std::make_shared<const BundleFiles>(
        BundleFiles{path, info, held, readInfoFile(directory.get()),
                    held == file::Stamp{} ? value::Dictionary{} : entitlements::ofBundle(directory.get(), path)});
}

}  // namespace dravo
