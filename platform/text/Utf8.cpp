#include "platform/text/Utf8.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace text {

namespace {

constexpr bool isContinuation(unsigned char c) {
    return (c & 0xC0) == 0x80;
}

// The length of the well-formed sequence of two to four bytes at `at`, 0 when it is none.
std::size_t sequenceLength(const unsigned char* at, std::size_t left) {
    const unsigned char first = at[0];
    if (first >= 0xC2 && first <= 0xDF) return left >= 2 && isContinuation(at[1]) ? 2 : 0;
    if (first >= 0xE0 && first <= 0xEF) {
        if (left < 3 || !isContinuation(at[1]) || !isContinuation(at[2])) return 0;
        if (first == 0xE0 && at[1] < 0xA0) return 0;  // overlong
        if (first == 0xED && at[1] > 0x9F) return 0;  // a surrogate
        return 3;
    }
    if (first >= 0xF0 && first <= 0xF4) {
        if (left < 4 || !isContinuation(at[1]) || !isContinuation(at[2]) || !isContinuation(at[3])) return 0;
        if (first == 0xF0 && at[1] < 0x90) return 0;  // overlong
        if (first == 0xF4 && at[1] > 0x8F) return 0;  // beyond U+10FFFF
        return 4;
    }
    return 0;
}

}  // namespace

bool isUtf8(std::string_view bytes) {
    constexpr std::uint64_t kHighBits = 0x8080808080808080U;
    const auto* at = reinterpret_cast<const unsigned char*>(bytes.data());
    std::size_t left = bytes.size();
    if (left >= sizeof(std::uint32_t) && left <= sizeof kHighBits) {  // most keys: two halves, which may overlap
        std::uint32_t halves[2];
        std::memcpy(&halves[0], at, sizeof halves[0]);
        std::memcpy(&halves[1], at + left - sizeof halves[1], sizeof halves[1]);
        if (((halves[0] | halves[1]) & static_cast<std::uint32_t>(kHighBits)) == 0) return true;
    }
    while (left > 0) {
        // Nearly every text is ASCII: eight at a time, and what is left at the end at once.
        std::uint64_t eight = 0;
        if (left >= sizeof eight) {
            std::memcpy(&eight, at, sizeof eight);
            if ((eight & kHighBits) == 0) {
                at += sizeof eight;
                left -= sizeof eight;
                continue;
            }
        } else if (bytes.size() >= sizeof eight) {
            // The last eight, some of them looked at before.
            std::memcpy(&eight, at + left - sizeof eight, sizeof eight);
            if ((eight & kHighBits) == 0) return true;
        }
        const std::size_t length = *at < 0x80 ? 1 : sequenceLength(at, left);
        if (length == 0) return false;
        at += length;
        left -= length;
    }
    return true;
}

std::string wellFormed(std::string_view bytes) {
    if (isUtf8(bytes)) return std::string{bytes};
    std::string text;
    while (!bytes.empty()) {
        const auto* const at = reinterpret_cast<const unsigned char*>(bytes.data());
        const std::size_t length = *at < 0x80 ? 1 : sequenceLength(at, bytes.size());
        text += length == 0 ? std::string_view{"\xEF\xBF\xBD"} : bytes.substr(0, length);
        bytes.remove_prefix(length == 0 ? 1 : length);
    }
    return text;
}

}  // namespace text
