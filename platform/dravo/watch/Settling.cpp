#include "platform/dravo/watch/Settling.h"

#include <algorithm>
#include <utility>

#include "platform/logging/Invariant.h"

// How it works. Each change starts the timer anew, to expire when nothing has changed for kQuiet: what is looked at in
// the middle of a copy is looked at twice. But somebody who changes something for ever must not keep everybody else's
// changes from being seen, so the timer never expires later than kLongest after the first change that nobody has looked
// at; since_ is that moment. rest() belongs to the look itself, whatever brought it about, and begins the next burst.
namespace dravo {

namespace {
constexpr std::chrono::milliseconds kQuiet{60};
constexpr std::chrono::milliseconds kLongest{1000};
}  // namespace

void Settling::note(queue::SerialQueue::Work work) {
    INVARIANT(queue_->isCurrent());
    const auto now = Clock::now();
    if (!since_) since_ = now;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*since_ + kLongest - now);
    // Once a burst has lasted too long the timer that runs is left alone, or it would never come to its end.
    if (left <= kQuiet && timer_) return;
    timer_ = queue::after(std::clamp(left, std::chrono::milliseconds{0}, kQuiet), queue_, std::move(work));
}

void Settling::rest() {
    since_.reset();
    timer_.reset();
}

}  // namespace dravo
