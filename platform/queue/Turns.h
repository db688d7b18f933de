#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/queue/Owner.h"
#include "platform/queue/SerialQueue.h"
#include "platform/queue/State.h"

namespace queue {

// Fair access to one serial queue. Whoever brings work has a lane: what is in one lane runs in the order in which it
// came, and the lanes take turns. They do so on two levels, processes first and then the lanes of each, so that neither
// what one lane has waiting nor the number of a process's lanes delays another process's work by more than what runs.
//
// The queue runs other work besides; of what waits in the lanes it knows one item at a time, which finds out only when
// its turn comes whose work it is.
//
// Ownership: a lane keeps the turns; work that waits keeps what its closure captured.
// Threading: every member may be called from any thread.
class Turns final : public Item, public std::enable_shared_from_this<Turns> {
    struct Process;

    // One closure that waits in a lane.
    struct Work : Item {
        bool isReady = true;  // under mutex_
    };

public:
    explicit Turns(const SerialQueue& queue);
    ~Turns() override;

    class Lane {
    public:
        Lane(std::shared_ptr<Turns> turns, const Owner& owner);
        Lane(const Lane&) = delete;
        Lane& operator=(const Lane&) = delete;
        ~Lane();  // what waits is dropped

        // Runs the closure in the queue, when it is this lane's turn.
        template <typename F>
        void async(F&& work) {
            submit(std::make_unique<Closure<std::decay_t<F>, Work>>(std::forward<F>(work)));
        }

        // The same, before all that waits in the lane: for what was begun in a turn of it and goes on in its next.
        template <typename F>
        void asyncNext(F&& work) {
            submit(std::make_unique<Closure<std::decay_t<F>, Work>>(std::forward<F>(work)), &ItemList::pushFront);
        }

        // The same as async(), but not before ready() is called with what this answers. What comes into the lane later
        // waits behind it; other lanes go on.
        using Ticket = std::uint64_t;
        template <typename F>
        [[nodiscard]] Ticket asyncWhenReady(F&& work) {
            return submitUnready(std::make_unique<Closure<std::decay_t<F>, Work>>(std::forward<F>(work)));
        }
        void ready(Ticket ticket);  // once; does nothing for what was dropped

        void drop();  // forgets what waits, at once and without running it

    private:
        friend class Turns;

        void submit(std::unique_ptr<Work> work, void (ItemList::*place)(Item&) = &ItemList::push);
        Ticket submitUnready(std::unique_ptr<Work> work);

        const std::shared_ptr<Turns> turns_;

        // Under the turns' lock.
        Process& process_;
        ItemList works_;
        std::vector<std::pair<Ticket, Work*>> unready_;  // of those
        Ticket last_ = 0;
        std::list<Lane*> place_{this};  // its node, while it has no turn to wait for
        const std::list<Lane*>::iterator node_ = place_.begin();
        bool isListed_ = false;  // the node is among the process's
    };

    void run() noexcept override;  // one piece of work; the queue's

private:
    struct Process {
        explicit Process(const Owner& process) : owner{process} {}
        Process(const Process&) = delete;
        Process& operator=(const Process&) = delete;

        const Owner owner;
        std::size_t lanes = 0;
        std::list<Lane*> ready;           // that have work, the next first
        std::list<Process*> place{this};  // its node, while no lane has work
        const std::list<Process*>::iterator node = place.begin();
    };

    void list(Lane& lane);  // if it has work, and is not listed
    void unlist(Lane& lane);
    Item* next();
    [[nodiscard]] bool isToBeQueued();

    const std::shared_ptr<SerialQueue::State> queue_;

    std::mutex mutex_;  // guards what follows
    std::map<Owner, Process> processes_;
    std::list<Process*> ready_;      // that have lanes with work, the next first
    std::shared_ptr<Turns> queued_;  // this, while it is among the queue's items
};

}  // namespace queue
