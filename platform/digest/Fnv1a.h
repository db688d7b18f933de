#pragma once

#include <cstdint>
#include <string_view>

namespace digest {

// A quick digest (FNV-1a) of the bytes, behind what was digested so far: tells one content from another, and is not
// made to resist anybody.
constexpr std::uint64_t fnv1a(std::string_view bytes, std::uint64_t soFar = 0xcbf29ce484222325) {
    for (const char byte : bytes) soFar = (soFar ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
    return soFar;
}

}  // namespace digest
