#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace digest {

// The SHA-1 digest of the bytes. For names that must not collide by accident, not for keeping anybody out.
std::array<std::byte, 20> sha1(std::string_view bytes);

}  // namespace digest
