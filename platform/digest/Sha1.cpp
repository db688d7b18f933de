#include "platform/digest/Sha1.h"

#include <cstdint>

#include <nettle/sha1.h>

namespace digest {

std::array<std::byte, 20> sha1(std::string_view bytes) {
    static_assert(SHA1_DIGEST_SIZE == 20);
    sha1_ctx context;
    sha1_init(&context);
    sha1_update(&context, bytes.size(), reinterpret_cast<const std::uint8_t*>(bytes.data()));
    std::array<std::byte, 20> result;
    sha1_digest(&context, result.size(), reinterpret_cast<std::uint8_t*>(result.data()));
    return result;
}

}  // namespace digest
