#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace value {

// A 16-byte UUID. On the wire it travels as those bytes; in dictionaries, log lines and rules as its canonical text.
class Uuid {
public:
    using Bytes = std::array<std::uint8_t, 16>;

    Uuid() = default;  // all zeroes
    explicit Uuid(const Bytes& bytes) : bytes_{bytes} {}

    // A fresh version 4 UUID from the kernel's random source; nobody can guess it.
    static Uuid random();

    // Reads the 36-character form with hexadecimal digits of either case; nothing for any other text.
    static std::optional<Uuid> parse(std::string_view text);

    const Bytes& bytes() const { return bytes_; }

    // The canonical text: 36 characters, upper-case hexadecimal digits in groups of 8-4-4-4-12.
    std::string string() const;

    friend auto operator<=>(const Uuid&, const Uuid&) = default;

private:
    Bytes bytes_{};
};

}  // namespace value

template <>
struct std::hash<value::Uuid> {
    std::size_t operator()(const value::Uuid& uuid) const noexcept;
};
