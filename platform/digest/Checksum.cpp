#include "platform/digest/Checksum.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace digest {

std::uint64_t checksum(std::span<const std::byte> bytes) {
    return XXH3_64bits(bytes.data(), bytes.size());
}

Fingerprint fingerprint(std::span<const std::byte> bytes) {
    const XXH128_hash_t digest = XXH3_128bits(bytes.data(), bytes.size());
    return {digest.high64, digest.low64};
}

}  // namespace digest
