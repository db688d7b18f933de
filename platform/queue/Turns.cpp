#include "platform/queue/Turns.h"

#include <algorithm>

#include "platform/logging/Invariant.h"

namespace queue {

Turns::Turns(const SerialQueue& queue) : queue_{SerialQueue::State::of(queue)} {}

Turns::~Turns() = default;

// --- Under the lock

void Turns::list(Lane& lane) {
    if (lane.isListed_ || lane.works_.empty() || !static_cast<Work&>(lane.works_.front()).isReady) return;
    Process& process = lane.process_;
    if (process.ready.empty()) ready_.splice(ready_.end(), process.place);
    process.ready.splice(process.ready.end(), lane.place_);
    lane.isListed_ = true;
    INVARIANT(process.place.empty() && lane.place_.empty());
}

void Turns::unlist(Lane& lane) {
    if (!std::exchange(lane.isListed_, false)) return;
    Process& process = lane.process_;
    lane.place_.splice(lane.place_.end(), process.ready, lane.node_);
    if (process.ready.empty()) process.place.splice(process.place.end(), ready_, process.node);
    INVARIANT(process.place.empty() != process.ready.empty());
}

// Whose turn it is; its process and it go to the end. Null when what waited was dropped.
Item* Turns::next() {
    if (ready_.empty()) return nullptr;
    Process& process = *ready_.front();
    INVARIANT(!process.ready.empty());
    Lane& lane = *process.ready.front();
    lane.place_.splice(lane.place_.end(), process.ready, process.ready.begin());
    lane.isListed_ = false;
    process.place.splice(process.place.end(), ready_, ready_.begin());
    if (!process.ready.empty()) ready_.splice(ready_.end(), process.place);
    INVARIANT(!lane.works_.empty());
    Item& work = lane.works_.pop();
    list(lane);
    return &work;
}

bool Turns::isToBeQueued() {
    if (ready_.empty() || queued_) return false;
    queued_ = shared_from_this();
    return true;
}

// What is to run next is queued before this runs, so that the queue is seen to have more to do.
void Turns::run() noexcept {
    std::shared_ptr<Turns> self;
    Item* work = nullptr;
    bool queues = false;
    {
        const std::lock_guard lock{mutex_};
        self = std::move(queued_);
        work = next();
        queues = isToBeQueued();
    }
    if (queues) queue_->submit(*this);
    if (work != nullptr) work->run();
}

// --- Lanes

Turns::Lane::Lane(std::shared_ptr<Turns> turns, const Owner& owner)
    : turns_{std::move(turns)}, process_{[&]() -> Process& {
          const std::lock_guard lock{turns_->mutex_};
          Process& process = turns_->processes_.try_emplace(owner, owner).first->second;
          ++process.lanes;
          return process;
      }()} {}

Turns::Lane::~Lane() {
    drop();
    const std::lock_guard lock{turns_->mutex_};
    INVARIANT(!isListed_ && place_.size() == 1);  // nobody will come for it
    INVARIANT(process_.lanes > 0);
    if (--process_.lanes == 0) turns_->processes_.erase(turns_->processes_.find(process_.owner));
}

void Turns::Lane::submit(std::unique_ptr<Work> work, void (ItemList::*place)(Item&)) {
    bool queues = false;
    {
        const std::lock_guard lock{turns_->mutex_};
        (works_.*place)(*work.release());
        turns_->list(*this);
        queues = turns_->isToBeQueued();
    }
    if (queues) turns_->queue_->submit(*turns_);
}

Turns::Lane::Ticket Turns::Lane::submitUnready(std::unique_ptr<Work> work) {
    const std::lock_guard lock{turns_->mutex_};
    work->isReady = false;
    unready_.emplace_back(++last_, work.get());
    works_.push(*work.release());
    return last_;
}

void Turns::Lane::ready(Ticket ticket) {
    bool queues = false;
    {
        const std::lock_guard lock{turns_->mutex_};
        const auto found =
            std::find_if(unready_.begin(), unready_.end(), [ticket](const auto& each) { return each.first == ticket; });
        if (found == unready_.end()) return;
        found->second->isReady = true;
        unready_.erase(found);
        turns_->list(*this);
        queues = turns_->isToBeQueued();
    }
    if (queues) turns_->queue_->submit(*turns_);
}

void Turns::Lane::drop() {
    ItemList dropped;
    {
        const std::lock_guard lock{turns_->mutex_};
        turns_->unlist(*this);
        unready_.clear();
        dropped = std::exchange(works_, {});
    }
    while (!dropped.empty()) delete &dropped.pop();
}

}  // namespace queue
