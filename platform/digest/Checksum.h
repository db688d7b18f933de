#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// Quick digests (XXH3). They find accidental damage and tell apart what was not made to look alike; they keep nobody
// out. The same on every machine.
namespace digest {

std::uint64_t checksum(std::span<const std::byte> bytes);

// Wide enough that two of a million things have the same by accident once in 10^26 times.
struct Fingerprint {
    std::uint64_t high = 0;
    std::uint64_t low = 0;
    friend bool operator==(const Fingerprint&, const Fingerprint&) = default;
};

Fingerprint fingerprint(std::span<const std::byte> bytes);

}  // namespace digest
