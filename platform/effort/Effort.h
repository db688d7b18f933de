#pragma once

#include <cstddef>
#include <cstdint>

// What one request, and all that it names, may make the process do.
//
// Primitives that are bounded one by one are not enough: a request can bring a hundred thousand of what each cost
// little. So whatever follows from outside input is charged, where it is done, to one account: values decoded,
// comparisons, paths resolved, files opened, bytes logged, encoded and saved. When the account is spent the request is
// refused, before it has changed anything where that can be had.
namespace effort {

// A unit is about ten nanoseconds of one processor: the price of comparing two short texts. Units and not a clock, so
// that the same request is always judged alike.
inline constexpr std::uint64_t kUnitsAMicrosecond = 100;

// What whoever asks may spend, and what each distinct thing that is worked on (a plug-in, a path, a candidate) adds to
// that, so that honest work of any size passes.
inline constexpr std::uint64_t kLimit = 50'000 * kUnitsAMicrosecond;
inline constexpr std::uint64_t kShare = 20 * kUnitsAMicrosecond;

// Prices of what many places do.
inline constexpr std::uint64_t kFileOpened = 5 * kUnitsAMicrosecond;
inline constexpr std::uint64_t ofBytes(std::size_t count) {  // read, compared or copied
    return count / 64;
}

inline constexpr std::uint64_t ofCharacters(std::size_t count) {  // looked at one by one
    return count / 8;
}

inline constexpr std::uint64_t ofParsing(std::size_t bytes) {  // of a property list, to make values of it
    return bytes * 2;
}

// One account. Belongs to one thread at a time; may be handed on to another.
class Account {
public:
    explicit Account(std::uint64_t limit = kLimit) : left_{limit} {}

    // An account within another one: what it has is taken from both, and it may be spent without the other being so.
    // What goes on to be taken from it then is nobody's. For one of many things that are worked on in a row, so that
    // each pays for itself. The outer one must outlive it.
    Account(Account& outer, std::uint64_t limit) : outer_{&outer}, left_{limit} {}

    Account(const Account&) = delete;
    Account& operator=(const Account&) = delete;

    // Takes so much, or what is left; false from then on once that was not enough, or was all.
    bool take(std::uint64_t units);

    // So many distinct things have come, each of which brings a share. Too late once the account is spent.
    void grantShares(std::size_t things);

    bool isSpent() const { return left_ == 0; }
    std::uint64_t left() const { return left_; }
    std::uint64_t spent() const { return spent_; }  // units so far

private:
    Account* const outer_ = nullptr;
    std::uint64_t left_;
    std::uint64_t spent_ = 0;
};

// While it exists, what the calling thread does is charged to the account; scopes nest, and the innermost counts.
class Charging {
public:
    explicit Charging(Account& account);
    ~Charging();
    Charging(const Charging&) = delete;
    Charging& operator=(const Charging&) = delete;

private:
    Account* const before_;
};

// While it exists, what the calling thread does is the daemon's own work, and charged to nobody.
class Uncharged {
public:
    Uncharged();
    ~Uncharged();
    Uncharged(const Uncharged&) = delete;
    Uncharged& operator=(const Uncharged&) = delete;

private:
    Account* const before_;
};

// Takes from the account that the calling thread's work is charged to; false once that is spent. Where nothing is
// charged (the daemon's own work) it is true, and free.
bool take(std::uint64_t units);
bool isSpent();

}  // namespace effort
