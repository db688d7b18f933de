#include "platform/value/Uuid.h"

#include <sys/random.h>

#include <cstdlib>
#include <cstring>

namespace value {

namespace {

constexpr char kDigits[] = "0123456789ABCDEF";

constexpr bool isHyphenAt(std::size_t position) {
    return position == 8 || position == 13 || position == 18 || position == 23;
}

int digitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

Uuid Uuid::random() {
    Bytes bytes;
    // A request of up to 256 bytes is never cut short once the kernel's pool is initialised, and blocks until then.
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) std::abort();
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // the variant of RFC 4122
    return Uuid{bytes};
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
    if (text.size() != 36) return {};
    Bytes bytes;
    std::size_t digits = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (isHyphenAt(i)) {
            if (text[i] != '-') return {};
            continue;
        }
        const int digit = digitValue(text[i]);
        if (digit < 0) return {};
        std::uint8_t& byte = bytes[digits / 2];
        byte = static_cast<std::uint8_t>(digits % 2 == 0 ? digit << 4 : byte | digit);
        ++digits;
    }
    return Uuid{bytes};
}

std::string Uuid::string() const {
    std::string text(36, '-');
    std::size_t digits = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (isHyphenAt(i)) continue;
        const std::uint8_t byte = bytes_[digits / 2];
        text[i] = kDigits[digits % 2 == 0 ? byte >> 4 : byte & 0x0F];
        ++digits;
    }
    return text;
}

}  // namespace value

std::size_t std::hash<value::Uuid>::operator()(const value::Uuid& uuid) const noexcept {
    // UUIDs may come from files, so neither half is taken to be random on its own.
    std::uint64_t halves[2];
    std::memcpy(halves, uuid.bytes().data(), sizeof halves);
    return static_cast<std::size_t>((halves[0] * 0x9E3779B97F4A7C15U) ^ halves[1]);
}
