#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "platform/queue/Reactor.h"

namespace dravo {

// Lets a burst of changes (an application being copied) come to rest before anybody looks, but not for ever. Belongs to
// the queue, on which the work runs.
class Settling {
public:
    explicit Settling(std::shared_ptr<queue::SerialQueue> queue) : queue_{std::move(queue)} {}

    // Something changed: the work is to run when that has come to rest. It must keep its owner alive while it runs,
    // since the owner's last user may let go of it meanwhile.
    void note(queue::SerialQueue::Work work);
    void rest();  // somebody looks now: nothing is left to wait for

private:
    using Clock = std::chrono::steady_clock;

    const std::shared_ptr<queue::SerialQueue> queue_;
    std::optional<Clock::time_point> since_;  // the first change of this burst
    std::unique_ptr<queue::Timer> timer_;
};

}  // namespace dravo
