#include "platform/mox/Wire.h"

#include <algorithm>

namespace mox::wire {

std::vector<std::byte> frame(FrameKind kind, std::uint64_t replyId, std::span<const std::byte> body) {
    const Header header{static_cast<std::uint32_t>(kLengthCounts + body.size()), kind, kNoFlags, 0, replyId};
    std::vector<std::byte> bytes(kHeaderSize + body.size());
    std::memcpy(bytes.data(), &header, sizeof header);
    std::copy(body.begin(), body.end(), bytes.begin() + kHeaderSize);
    return bytes;
}

}  // namespace mox::wire
