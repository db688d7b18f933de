#include "platform/dravo/BundleFiles.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <utility>

#include "platform/bundle/Bundle.h"
#include "platform/entitlements/Entitlements.h"
#include "platform/file/Beneath.h"
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
    const auto directory = file::openWithoutLinks(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (!directory) return nullptr;
    const BundleStamps stamps{stampIn(directory->get(), "."), stampIn(directory->get(), bundle::kInfoFile),
                              stampIn(directory->get(), entitlements::kFile)};
    const bool isSettled = file::settled(stamps.directory) && file::settled(stamps.info) &&
                           (stamps.entitlements == file::Stamp{} || file::settled(stamps.entitlements));
    if (stamps.info == file::Stamp{} || !isSettled) return nullptr;
    auto held =
        stamps.entitlements == file::Stamp{} ? value::Dictionary{} : entitlements::ofBundle(directory->get(), path);
    return std::make_shared<const BundleFiles>(
        BundleFiles{path, stamps, readInfoFile(directory->get()), std::move(held)});
}

}  // namespace dravo
