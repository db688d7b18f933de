#include "platform/queue/SerialQueue.h"

#include <utility>

#include "platform/logging/Invariant.h"
#include "platform/queue/State.h"

namespace queue {

SerialQueue::SerialQueue(std::string label, QualityOfService quality)
    : state_{std::make_shared<State>(std::move(label), quality)} {}

SerialQueue::~SerialQueue() = default;  // the pool keeps the state as long as there are closures to run

void SerialQueue::submit(std::unique_ptr<Item> item) {
    state_->submit(*item.release());
}

bool SerialQueue::isCurrent() const {
    return Presence::covers(*state_);
}

const std::string& SerialQueue::label() const {
    return state_->label;
}

constinit thread_local const SerialQueue::Presence* SerialQueue::Presence::innermost_ = nullptr;

SerialQueue::Presence::Presence(const State& state) : state_{state}, outer_{innermost_} {
    innermost_ = this;
}

SerialQueue::Presence::~Presence() {
    INVARIANT(innermost_ == this);
    innermost_ = outer_;
}

bool SerialQueue::Presence::covers(const State& state) {
    for (const Presence* presence = innermost_; presence != nullptr; presence = presence->outer_) {
        if (&presence->state_ == &state) return true;
    }
    return false;
}

SerialQueue::Turn::Turn(const SerialQueue& queue) : state_{(queue.state_->enter(), queue.state_)}, presence_{*state_} {}

SerialQueue::Turn::~Turn() {
    state_->leave();
}

}  // namespace queue
