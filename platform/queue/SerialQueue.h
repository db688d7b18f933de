#pragma once

#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "platform/queue/Item.h"

namespace queue {

// The platform's classes, by its own numbers. The pool serves waiting queues of a higher class first.
enum class QualityOfService { background = 9, utility = 17, standard = 21, userInitiated = 25, userInteractive = 33 };

// Runs closures one at a time, in the order of submission. A queue is a turn, not a thread: closures of one queue never
// overlap, yet may run on different threads of the small pool. Work submitted from a pool thread is run by that same
// thread next when nothing else claims it, so that a lone request needs no thread hop.
//
// Ownership: a waiting closure keeps what it captured alive; closures still waiting when the queue object goes are run
// all the same.
// Threading: every member may be called from any thread.
// Errors: none; sync() inside a closure of the same queue, also when nested through other queues, is a programming
// error and stops the process with the label. So does an exception that leaves a closure given to async(); one that
// leaves a closure given to sync() reaches sync()'s caller.
class SerialQueue {
public:
    using Work = std::function<void()>;

    explicit SerialQueue(std::string label, QualityOfService quality = QualityOfService::standard);
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    // Runs later; returns at once. Takes any closure, also one that cannot be copied.
    template <typename F>
    void async(F&& work) {
        submit(std::make_unique<Closure<std::decay_t<F>>>(std::forward<F>(work)));
    }

    // Runs before it returns, in its turn; on an idle queue on the caller's thread, at the price of an uncontended
    // lock. The result of the closure is returned.
    template <typename F>
    std::invoke_result_t<F&> sync(F&& work) {
        using Result = std::invoke_result_t<F&>;
        const Turn turn{*this};
        if constexpr (std::is_void_v<Result>) {
            work();
        } else {
            return work();
        }
    }

    // Whether the caller is inside one of this queue's closures (however deeply nested in those of other queues).
    bool isCurrent() const;

    const std::string& label() const;

    struct State;  // how the queue works; private to the implementation

private:
    // Marks the thread as inside the queue for as long as it exists.
    class Presence {
    public:
        explicit Presence(const State& state);
        ~Presence();
        Presence(const Presence&) = delete;
        Presence& operator=(const Presence&) = delete;

        static bool covers(const State& state);
        static const State* innermost() { return innermost_ != nullptr ? &innermost_->state_ : nullptr; }

    private:
        static constinit thread_local const Presence* innermost_;

        const State& state_;
        const Presence* const outer_;
    };

    // Holds the queue's turn for the life of a sync(). The queue object itself may go in the meantime.
    class Turn {
    public:
        explicit Turn(const SerialQueue& queue);
        ~Turn();
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

    private:
        const std::shared_ptr<State> state_;
        const Presence presence_;
    };

    void submit(std::unique_ptr<Item> item);

    const std::shared_ptr<State> state_;
};

}  // namespace queue
