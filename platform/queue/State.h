#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <semaphore>
#include <string>

#include "platform/queue/Item.h"
#include "platform/queue/SerialQueue.h"

// How a serial queue works. A queue is in one of three phases: idle (nothing to do), scheduled (has items; on the
// pool's list, nobody holds the turn) or running (one thread holds the turn). The turn moves in four ways:
//
// - a pool thread takes a scheduled queue and drains it, a batch at a time;
// - the thread that brings an item to an idle queue may keep the turn and drain it itself (the reactor does);
// - a thread in sync() takes the turn of an idle or scheduled queue; of a scheduled one it runs the earlier items
// first.
//   So nobody ever waits for a queue that no thread is running, however few threads there are;
// - a thread in sync() on a running queue leaves a waiter among the items, and whoever comes upon it hands it the turn.
namespace queue {

class ItemList {
public:
    bool empty() const { return head_ == nullptr; }
    Item& front() const { return *head_; }
    void push(Item& item);
    void pushFront(Item& item);
    Item& pop();

private:
    Item* head_ = nullptr;
    Item* tail_ = nullptr;
};

// A thread in sync() that waits for its turn; lives on that thread's stack.
class Waiter final : public Item {
public:
    Waiter() : Item{Kind::waiter} {}
    void run() noexcept override { admitted_.release(); }
    void wait() { admitted_.acquire(); }

private:
    std::binary_semaphore admitted_{0};
};

struct SerialQueue::State : std::enable_shared_from_this<SerialQueue::State> {
    enum class Claim : std::uint8_t {
        pool,   // the caller hands an idle queue, with the item, to the pool
        caller  // the caller takes an idle queue's turn, and must drain() it with the item
    };
    static constexpr unsigned kBatch = 64;  // items run before the thread looks at other queues and the reactor

    State(std::string label, QualityOfService quality);

    static const std::shared_ptr<State>& of(const SerialQueue& queue) { return queue.state_; }

    // Appends the item, unless the caller takes the turn. True when this took the idle queue out of idleness for the
    // claimant given.
    [[nodiscard]] bool append(Item& item, Claim claim);

    // Appends the item and leaves the rest to the pool.
    void submit(Item& item);

    // Takes the turn of a scheduled queue and its first item; null when it is not (or no longer) scheduled.
    [[nodiscard]] Item* take();

    // Whether the queue in whose turn the calling thread is has more to do.
    static bool currentHasMore();

    // Runs this item, if one is given, and those that wait, up to that many in all, and gives the turn away: to
    // idleness, to a waiter or to the pool. Only with the turn. Returns how many it ran.
    unsigned drain(Item* first, unsigned budget = kBatch);

    // The turn for one sync().
    void enter();
    void leave();

    const std::string label;
    const QualityOfService quality;

    // The pool's list of scheduled queues; under the pool's lock. A queue is on the list once at most; it may be there
    // without being scheduled, when a sync() took the turn, and is then passed over.
    std::shared_ptr<State> nextScheduled;
    bool listed = false;

private:
    enum class Phase : std::uint8_t { idle, scheduled, running };

    // The next item to run; with none the turn is given up, and with the budget spent it is the pool's to give on.
    struct Next {
        Item* item;
        bool spent;
    };
    Next next(unsigned budget);

    // Runs the items before `self`, which is among them. True when the turn is now the caller's, false when an earlier
    // waiter got it.
    bool drainUpTo(const Waiter& self);

    mutable std::mutex mutex_;
    Phase phase_ = Phase::idle;  // under mutex_, as is items_
    ItemList items_;
};

}  // namespace queue
