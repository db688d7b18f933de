#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

// The layout of encoded values, shared by those who write and those who read them; doc/wire.md is its documentation.
//
//     boolean, integers, real, date, uuid:  tag payload                    (1, 8, 8, 8 and 16 bytes of payload)
//     string, data:                         tag length:u32 bytes
//     array:                                tag size:u32 count:u32 value*
//     dictionary:                           tag size:u32 count:u32 (length:u32 key value)*
//     message form:                         tag value
//
// All little-endian, nothing aligned. `size` counts the bytes after itself, so that a reader steps over a container
// without looking into it.
namespace mox::encoding {

static_assert(std::endian::native == std::endian::little, "encoded numbers are read as they lie in memory");

inline constexpr std::size_t kTagSize = 1;
inline constexpr std::size_t kLengthSize = 4;
inline constexpr std::size_t kContainerHeader = kTagSize + 2 * kLengthSize;  // tag, size, count
inline constexpr std::size_t kSmallestValue = 2;                             // a boolean
inline constexpr std::size_t kSmallestEntry = kLengthSize + kSmallestValue;

template <typename Number>
Number load(const std::byte* at) {
    Number number;
    std::memcpy(&number, at, sizeof number);
    return number;
}

}  // namespace mox::encoding
