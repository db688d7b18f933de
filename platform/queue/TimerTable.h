#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/file/UniqueFd.h"
#include "platform/queue/State.h"

namespace queue {

class TimerState;
using Deadlines = std::multimap<std::chrono::steady_clock::time_point, std::shared_ptr<TimerState>>;

// What is behind a Timer: its closure, as an item of its queue.
class TimerState final : public Item, public std::enable_shared_from_this<TimerState> {
public:
    TimerState(std::shared_ptr<SerialQueue::State> queue, SerialQueue::Work work);

    void fire();
    void cancel() { cancelled_.store(true, std::memory_order_relaxed); }
    void run() noexcept override;

private:
    friend class TimerTable;

    const std::shared_ptr<SerialQueue::State> queue_;
    SerialQueue::Work work_;              // touched in the queue's turn only
    std::atomic<bool> cancelled_{false};  // orders nothing else: a cancel that must be seen comes from the same queue
    std::shared_ptr<TimerState> queued_;  // itself while it is an item of the queue
    std::optional<Deadlines::iterator> at_;  // where it is in the table; under the table's lock
};

// All timers of the process, behind one kernel timer that is set for the earliest. Timers of like delay are added at
// the end, so adding and removing cost about the same with a hundred as with a hundred thousand. Every member may be
// called from any thread.
class TimerTable {
public:
    TimerTable();

    int fd() const { return timer_.get(); }

    void add(const std::shared_ptr<TimerState>& timer, std::chrono::milliseconds delay);
    void remove(TimerState& timer);

    // Fires what is due, in the order of the deadlines.
    void expire();

private:
    using Clock = std::chrono::steady_clock;

    void set(Clock::time_point deadline);

    const file::UniqueFd timer_;

    std::mutex mutex_;
    Deadlines deadlines_;
    Clock::time_point setFor_ = Clock::time_point::max();
};

}  // namespace queue
