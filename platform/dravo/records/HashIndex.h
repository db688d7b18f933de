#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/logging/Invariant.h"

namespace dravo {

// Finds numbers (places in a list) by a hash: one flat sorted array, 16 bytes an entry. Different things may share a
// hash, so a caller compares what it finds. Filled first, then sealed, then read from any thread.
class HashIndex {
public:
    struct Entry {
        std::uint64_t hash;
        std::uint32_t number;
    };

    void reserve(std::size_t count) { entries_.reserve(count); }
    void add(std::uint64_t hash, std::uint32_t number) {
        INVARIANT(!isSealed_);
        entries_.push_back({hash, number});
    }

    void seal() {
        isSealed_ = true;
        std::sort(entries_.begin(), entries_.end(), [](const Entry& a, const Entry& b) {
            return a.hash != b.hash ? a.hash < b.hash : a.number < b.number;
        });
    }

    // Those with the hash, in ascending order of their numbers.
    std::span<const Entry> candidates(std::uint64_t hash) const {
        INVARIANT(isSealed_ || entries_.empty());
        const auto first = std::lower_bound(entries_.begin(), entries_.end(), hash,
                                            [](const Entry& entry, std::uint64_t h) { return entry.hash < h; });
        auto last = first;
        while (last != entries_.end() && last->hash == hash) ++last;
        return {first, last};
    }

private:
    std::vector<Entry> entries_;
    bool isSealed_ = false;
};

}  // namespace dravo
