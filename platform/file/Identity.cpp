#include "platform/file/Identity.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <span>
#include <utility>

#include "platform/file/Beneath.h"

namespace file {

namespace {

bool readStatus(int descriptor, struct statx& status) {
    return ::statx(descriptor, "", AT_EMPTY_PATH | AT_STATX_SYNC_AS_STAT, STATX_INO | STATX_BTIME, &status) == 0;
}

Identity withoutGeneration(const struct statx& status) {
    constexpr std::int64_t kSecond = 1'000'000'000;
    const bool hasBirth = (status.stx_mask & STATX_BTIME) != 0;
    return {.device = ::makedev(status.stx_dev_major, status.stx_dev_minor),
            .inode = status.stx_ino,
            .birth = hasBirth ? status.stx_btime.tv_sec * kSecond + status.stx_btime.tv_nsec : 0};
}

// 0 when the file system makes no handles.
std::uint64_t generationOf(int descriptor) {
    constexpr std::size_t kLargest = 128;  // MAX_HANDLE_SZ
    alignas(file_handle) std::array<std::byte, sizeof(file_handle) + kLargest> space{};
    auto* const handle = reinterpret_cast<file_handle*>(space.data());
    handle->handle_bytes = kLargest;
    int mount = 0;
    if (::name_to_handle_at(descriptor, "", handle, &mount, AT_EMPTY_PATH) != 0) return 0;
    std::uint64_t digest = 0xcbf29ce484222325;  // FNV-1a
    const auto add = [&digest](unsigned char byte) { digest = (digest ^ byte) * 0x100000001b3; };
    add(static_cast<unsigned char>(handle->handle_type));
    const auto bytes = std::span{space}.subspan(offsetof(file_handle, f_handle)).first(handle->handle_bytes);
    for (const std::byte byte : bytes) add(std::to_integer<unsigned char>(byte));
    return digest;
}

value::Result<UniqueFd> ifSame(value::Result<UniqueFd> opened, const std::string& path, const Identity& identity) {
    if (!opened) return opened;
    const auto found = identityOf(opened->get());
    if (!found) return value::posixError(errno, path);
    if (!identity.isKnown() || *found != identity) return value::posixError(ESTALE, path);
    return opened;
}

}  // namespace

std::optional<Identity> identityOf(int descriptor) {
    struct statx status {};
    if (!readStatus(descriptor, status)) return {};
    Identity identity = withoutGeneration(status);
    identity.generation = generationOf(descriptor);
    return identity;
}

bool mayBe(const Identity& identity, int descriptor) {
    struct statx status {};
    if (!identity.isKnown() || !readStatus(descriptor, status)) return false;
    Identity found = withoutGeneration(status);
    found.generation = identity.generation;
    return found == identity;
}

value::Result<UniqueFd> openSame(const std::string& path, const Identity& identity, int flags) {
    return ifSame(openWithoutLinks(path, flags), path, identity);
}

value::Result<UniqueFd> openSameBeneath(int directory, const std::string& relativePath, const Identity& identity,
                                        int flags) {
    return ifSame(openBeneath(directory, relativePath, flags), relativePath, identity);
}

}  // namespace file
