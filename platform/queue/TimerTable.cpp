#include "platform/queue/TimerTable.h"

#include <sys/timerfd.h>

#include <algorithm>
#include <utility>

#include "platform/logging/Invariant.h"
#include "platform/queue/SystemCall.h"

namespace queue {

TimerState::TimerState(std::shared_ptr<SerialQueue::State> queue, SerialQueue::Work work)
    : queue_{std::move(queue)}, work_{std::move(work)} {}

void TimerState::fire() {
    queued_ = shared_from_this();
    queue_->submit(*this);
}

void TimerState::run() noexcept {
    const std::shared_ptr<TimerState> self = std::move(queued_);
    const SerialQueue::Work work = std::move(work_);
    if (!cancelled_.load(std::memory_order_relaxed)) work();
}

TimerTable::TimerTable()
    : timer_{required("timerfd_create", ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK))} {}

void TimerTable::set(Clock::time_point deadline) {
    using namespace std::chrono;
    const auto since = deadline.time_since_epoch();
    const auto whole = duration_cast<seconds>(since);
    itimerspec when{};
    when.it_value.tv_sec = whole.count();
    when.it_value.tv_nsec = duration_cast<nanoseconds>(since - whole).count();
    required("timerfd_settime", ::timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &when, nullptr));
    setFor_ = deadline;
}

void TimerTable::add(const std::shared_ptr<TimerState>& timer, std::chrono::milliseconds delay) {
    constexpr std::chrono::milliseconds kLongest = std::chrono::hours{24 * 365};
    const auto deadline = Clock::now() + std::clamp(delay, std::chrono::milliseconds::zero(), kLongest);
    const std::lock_guard lock{mutex_};
    INVARIANT(!timer->at_);
    timer->at_ = deadlines_.emplace_hint(deadlines_.end(), deadline, timer);
    if (deadline < setFor_) set(deadline);
    INVARIANT(setFor_ <= deadlines_.begin()->first);
}

void TimerTable::remove(TimerState& timer) {
    Deadlines::node_type removed;  // goes after the lock has
    const std::lock_guard lock{mutex_};
    if (timer.at_) removed = deadlines_.extract(*timer.at_);
    timer.at_.reset();
}

void TimerTable::expire() {
    Deadlines due;  // goes after the lock has
    const std::lock_guard lock{mutex_};
    const auto now = Clock::now();
    while (!deadlines_.empty() && deadlines_.begin()->first <= now) {
        auto node = deadlines_.extract(deadlines_.begin());
        INVARIANT(node.mapped()->at_.has_value());
        node.mapped()->at_.reset();
        node.mapped()->fire();
        due.insert(due.end(), std::move(node));
    }
    setFor_ = Clock::time_point::max();
    if (!deadlines_.empty()) set(deadlines_.begin()->first);
}

}  // namespace queue
