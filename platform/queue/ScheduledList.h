#pragma once

#include <array>
#include <cstddef>
#include <memory>

#include "platform/logging/Invariant.h"
#include "platform/queue/State.h"

namespace queue {

// The queues that wait for a thread: first in, first out within each class, higher classes first. Intrusive; a queue is
// on it at most once. Not thread-safe: the pool's lock guards it and the fields of the queues that it uses.
class ScheduledList {
public:
    ScheduledList() = default;
    ScheduledList(const ScheduledList&) = delete;
    ScheduledList& operator=(const ScheduledList&) = delete;

    std::size_t size() const { return size_; }

    // Does nothing to a queue that is already listed.
    void push(std::shared_ptr<SerialQueue::State> queue) {
        if (queue->listed) return;
        queue->listed = true;
        Lane& lane = lanes_.at(laneOf(queue->quality));
        SerialQueue::State* const last = queue.get();
        (lane.first ? lane.last->nextScheduled : lane.first) = std::move(queue);
        lane.last = last;
        ++size_;
    }

    // Null when there is none.
    std::shared_ptr<SerialQueue::State> pop() {
        for (Lane& lane : lanes_) {
            if (!lane.first) continue;
            std::shared_ptr<SerialQueue::State> queue = std::move(lane.first);
            lane.first = std::move(queue->nextScheduled);
            INVARIANT(queue->listed && size_ > 0);
            queue->listed = false;
            --size_;
            return queue;
        }
        return nullptr;
    }

private:
    struct Lane {
        std::shared_ptr<SerialQueue::State> first;
        SerialQueue::State* last = nullptr;  // good while there is a first
    };

    static constexpr std::size_t laneOf(QualityOfService quality) {
        switch (quality) {
            case QualityOfService::userInteractive: return 0;
            case QualityOfService::userInitiated: return 1;
            case QualityOfService::standard: return 2;
            case QualityOfService::utility: return 3;
            case QualityOfService::background: return 4;
        }
        return 4;
    }

    std::array<Lane, 5> lanes_;
    std::size_t size_ = 0;
};

}  // namespace queue
