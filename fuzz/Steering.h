#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <span>

namespace fuzz {

// The bytes of an input as a source of choices, one byte each, so that a choice can be changed without those behind it
// becoming others. An input that has come to its end goes on with zeros.
class Steering {
public:
    explicit Steering(std::span<const std::uint8_t> bytes) : bytes_{bytes} {}

    bool isAtEnd() const { return bytes_.empty(); }

    std::size_t below(std::size_t count) { return next() % count; }

    // Up to so much, small amounts far more often than large ones: 0 for the byte 0, all of it for the byte 255.
    std::size_t amount(std::size_t most) {
        const double part = next() / 255.0;
        return static_cast<std::size_t>(std::pow(static_cast<double>(most) + 1, part * part) - 1 + 0.5);
    }

    template <typename Choices>
    const auto& pick(const Choices& choices) {
        return *(std::begin(choices) + static_cast<std::ptrdiff_t>(below(std::size(choices))));
    }

private:
    std::uint8_t next() {
        if (bytes_.empty()) return 0;
        const std::uint8_t byte = bytes_.front();
        bytes_ = bytes_.subspan(1);
        return byte;
    }

    std::span<const std::uint8_t> bytes_;
};

}  // namespace fuzz
