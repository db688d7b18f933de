#pragma once

#include <cstddef>
#include <cstdint>

// What one discovery may spend on meeting values with patterns. A request may bring a hundred thousand patterns, a
// bundle ten thousand values, and each meeting is a comparison: unbounded, one such pair keeps every other client
// waiting for minutes.
//
// While one exists, the rule language on its thread takes from it; once it is spent, nothing matches any more, and the
// discovery leaves out what it had not decided by then. Where none exists nothing is bounded.
//
// Ownership: a discovery's. Threading: belongs to the thread that made it; one at a time.
class MatchEffort {
public:
    // Units: about the price of comparing two short texts. A second's worth at most, and far beyond what ten thousand
    // plug-ins need for a hundred rules.
    static constexpr std::uint64_t kLimit = 20'000'000;

    MatchEffort();
    ~MatchEffort();
    MatchEffort(const MatchEffort&) = delete;
    MatchEffort& operator=(const MatchEffort&) = delete;

    bool isSpent() const { return left_ == 0; }

    // Takes so much from the thread's own; false once that is spent.
    static bool take(std::uint64_t units) {
        if (current == nullptr) return true;
        current->left_ -= units < current->left_ ? units : current->left_;
        return current->left_ != 0;
    }

    // Of comparing two texts.
    static std::uint64_t ofTexts(std::size_t one, std::size_t other) {
        constexpr std::size_t kBytesAUnit = 64;
        return 1 + (one < other ? one : other) / kBytesAUnit;
    }

private:
    static thread_local constinit MatchEffort* current;

    std::uint64_t left_ = kLimit;
};
