#include "platform/queue/State.h"

#include <utility>

#include "platform/logging/Invariant.h"
#include "platform/logging/Log.h"
#include "platform/queue/Pool.h"

namespace queue {

void ItemList::push(Item& item) {
    item.next_ = nullptr;
    (head_ == nullptr ? head_ : tail_->next_) = &item;
    tail_ = &item;
}

void ItemList::pushFront(Item& item) {
    item.next_ = head_;
    if (head_ == nullptr) tail_ = &item;
    head_ = &item;
}

Item& ItemList::pop() {
    INVARIANT(head_ != nullptr);
    Item& item = *head_;
    head_ = item.next_;
    return item;
}

SerialQueue::State::State(std::string name, QualityOfService qos) : label{std::move(name)}, quality{qos} {}

bool SerialQueue::State::append(Item& item, Claim claim) {
    const std::lock_guard lock{mutex_};
    const bool isIdle = phase_ == Phase::idle;
    INVARIANT(!isIdle || items_.empty());
    if (!isIdle || claim == Claim::pool) items_.push(item);
    if (isIdle) phase_ = claim == Claim::caller ? Phase::running : Phase::scheduled;
    return isIdle;
}

void SerialQueue::State::submit(Item& item) {
    // Once appended the item may run at any moment and take the last owner of this queue with it.
    std::shared_ptr<State> self = shared_from_this();
    if (append(item, Claim::pool)) Pool::shared().schedule(std::move(self));
}

Item* SerialQueue::State::take() {
    const std::lock_guard lock{mutex_};
    if (phase_ != Phase::scheduled) return nullptr;
    INVARIANT(!items_.empty());
    phase_ = Phase::running;
    return &items_.pop();
}

SerialQueue::State::Next SerialQueue::State::next(unsigned budget) {
    const std::lock_guard lock{mutex_};
    INVARIANT(phase_ == Phase::running);  // the turn is the caller's
    if (items_.empty()) {
        phase_ = Phase::idle;
        return {nullptr, false};
    }
    if (budget == 0 && !items_.front().isWaiter()) {
        phase_ = Phase::scheduled;
        return {nullptr, true};
    }
    return {&items_.pop(), false};
}

bool SerialQueue::State::currentHasMore() {
    const State* const current = Presence::innermost();
    if (current == nullptr) return false;
    const std::lock_guard lock{current->mutex_};
    return !current->items_.empty();
}

unsigned SerialQueue::State::drain(Item* first, unsigned budget) {
    const Presence presence{*this};
    for (unsigned ran = 0;; ++ran) {
        const Next up = first != nullptr ? Next{std::exchange(first, nullptr), false} : next(budget - ran);
        if (up.item == nullptr) {
            if (up.spent) Pool::shared().schedule(shared_from_this());
            return ran;
        }
        const bool turnGoesAlong = up.item->isWaiter();
        up.item->run();
        if (turnGoesAlong) return ran;
    }
}

bool SerialQueue::State::drainUpTo(const Waiter& self) {
    const Presence presence{*this};
    while (Item* const item = next(kBatch).item) {
        if (item == &self) return true;
        const bool turnGoesAlong = item->isWaiter();
        item->run();
        if (turnGoesAlong) return false;
    }
    return false;  // not reached: our own waiter is among the items
}

void SerialQueue::State::enter() {
    if (Presence::covers(*this)) {
        logging::internalInconsistency("sync on the queue \"" + label + "\" from inside one of its own closures",
                                       "SerialQueue");
    }
    Waiter self;
    bool turnIsOurs = false;
    {
        const std::lock_guard lock{mutex_};
        if (phase_ == Phase::idle) {
            phase_ = Phase::running;
            return;
        }
        items_.push(self);
        turnIsOurs = phase_ == Phase::scheduled;
        phase_ = Phase::running;
    }
    if (turnIsOurs && drainUpTo(self)) return;
    Pool::shared().beforeBlocking();
    self.wait();
}

void SerialQueue::State::leave() {
    drain(nullptr, 0);
}

}  // namespace queue
