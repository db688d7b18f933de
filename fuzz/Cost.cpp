#include "fuzz/Cost.h"

#include <atomic>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "fuzz/Fuzz.h"
#include "platform/effort/Effort.h"
#include "platform/mox/Encoder.h"
#include "vtd/rules/Match.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/allocator_interface.h>
#define COUNTS_ALLOCATIONS 1
#endif
#endif

namespace fuzz {

namespace {

// Before calibrate(): as without sanitizers.
double slowdown = 1;

double millisecondsOf(clockid_t clock) {
    timespec time{};
    ::clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

double millisecondsOfOthers() {
    return millisecondsOf(CLOCK_PROCESS_CPUTIME_ID) - millisecondsOf(CLOCK_THREAD_CPUTIME_ID);
}

std::atomic<std::ptrdiff_t> live = 0, peak = 0;
thread_local bool isClient = false;

#ifdef COUNTS_ALLOCATIONS
void allocated(const volatile void*, std::size_t size) {
    if (isClient) return;
    const std::ptrdiff_t now = live.fetch_add(static_cast<std::ptrdiff_t>(size)) + static_cast<std::ptrdiff_t>(size);
    for (std::ptrdiff_t most = peak; now > most && !peak.compare_exchange_weak(most, now);) {
    }
}

void freed(const volatile void* block) {
    if (isClient || block == nullptr) return;
    live.fetch_sub(static_cast<std::ptrdiff_t>(__sanitizer_get_allocated_size(block)));
}
#endif

// Of what requests mostly do: a long list is encoded, decoded, read as patterns, and held against values. Answers the
// effort that it was charged.
std::uint64_t workOfKnownEffort() {
    constexpr std::size_t kTexts = 2'000, kTries = 500;
    effort::Account account;
    const effort::Charging charging{account};
    mox::Encoder encoder;
    auto dictionary = encoder.beginDictionary();
    encoder.key(dictionary, "Name");
    auto list = encoder.beginArray();
    for (std::size_t i = 0; i < kTexts; ++i) {
        mox::Encoder::element(list);
        encoder.string((i < kTexts / 2 ? "1.10." : "<>1.10.") + std::to_string(i));
    }
    encoder.end(list);
    encoder.end(dictionary);
    const std::vector<std::byte> bytes = encoder.take();
    const mox::View view{bytes.data()};
    const value::Value decoded = view.toValue();
    const rules::Rules read{view}, kept{*decoded.dictionary()};
    rules::Complaints complaints;
    for (std::size_t i = 0; i < kTries; ++i) {
        const value::Value text{"1." + std::to_string(i)};
        fuzz::require(rules::isMet(read, read.rules().front(), &text, complaints));
        fuzz::require(rules::isMet(kept, kept.rules().front(), &text, complaints));
    }
    return account.spent();
}

void countAllocations() {
#ifdef COUNTS_ALLOCATIONS
    [[maybe_unused]] static const int installed = __sanitizer_install_malloc_and_free_hooks(allocated, freed);
#endif
}

}  // namespace

double Cost::calibrate() {
    // What the release build takes for this work, of what that is charged with.
    constexpr double kOfItsPrice = 0.7;
    constexpr int kRounds = 20;
    const double before = millisecondsOf(CLOCK_THREAD_CPUTIME_ID);
    std::uint64_t units = 0;
    for (int round = 0; round < kRounds; ++round) units += workOfKnownEffort();
    const double spent = millisecondsOf(CLOCK_THREAD_CPUTIME_ID) - before;
    return slowdown = spent / (kOfItsPrice * static_cast<double>(units) / (effort::kUnitsAMicrosecond * 1e3));
}

Cost::Cost() : startedAt_{millisecondsOfOthers()} {
    countAllocations();
    isClient = true;
    live = 0;
    peak = 0;
}

double Cost::milliseconds() const {
    return (millisecondsOfOthers() - startedAt_) / slowdown;
}

std::ptrdiff_t Cost::peakBytes() const {
    return peak;
}

}  // namespace fuzz
