#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "platform/queue/Reactor.h"

namespace dravo {

// Lets a burst of changes (an application being copied) come to rest before anybody looks, but not for ever. Belongs to
// the queue, on which the work runs; the work must hold its owner weakly.
class Settling {
public:
    Settling(std::shared_ptr<queue::SerialQueue> queue, queue::SerialQueue::Work work)
        : queue_{std::move(queue)}, work_{std::move(work)} {}

    void note();  // something changed
    void rest();  // somebody looks now: nothing is left to wait for

private:
    using Clock = std::chrono::steady_clock;

    const std::shared_ptr<queue::SerialQueue> queue_;
    const queue::SerialQueue::Work work_;
    std::optional<Clock::time_point> since_;  // the first change of this burst
    std::unique_ptr<queue::Timer> timer_;
};

}  // namespace dravo
