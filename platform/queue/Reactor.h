#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "platform/queue/SerialQueue.h"

// Sockets, timers and other descriptors, watched by the same small pool that runs the serial queues. A handler runs as
// a closure of the queue given for it, so that it never overlaps with that queue's other work.
//
// The pool's threads start when the first queue, watch or timer needs them and live as long as the process. A process
// may fork before that; the child of a later fork has no pool and may only exec.
namespace queue {

// A descriptor being watched. Readiness is reported once per change (edge-triggered), so a handler reads until the call
// would block, or asks to be called again with `again()`. Room to write is reported only to who asked for it with
// `awaitWritable()`. Reports may be spurious: the call that follows has the last word.
//
// Ownership: does not own the descriptor, which must stay open until the watch is gone. Destroying the watch, from any
// thread, ends it: a handler that already runs is not waited for, but none starts afterwards. Handlers therefore
// capture their owner weakly.
// Threading: every member may be called from any thread.
class Watch {
public:
    // hangup: the peer has closed, or shut down its sending side, or the descriptor is in error. What it sent before is
    // still there to read.
    enum Readiness : std::uint32_t { readable = 1, writable = 2, hangup = 4 };
    using Handler = std::function<void(std::uint32_t readiness)>;

    virtual ~Watch() = default;

    // Suspends and resumes the reporting of readable (and hangup with data pending): how a busy peer is not read.
    // On resuming, readable is reported whether or not something came, and so is a hangup that was held back.
    virtual void setReading(bool reading) = 0;

    // Asks for one report of writable, as soon as there is room: for a write that would have blocked. Not standing,
    // since a socket turns writable each time its peer has read something, and every report costs a wake-up.
    virtual void awaitWritable() = 0;

    // Queues the handler once more, with the readiness given: for a handler that stopped before it had read all.
    virtual void again(std::uint32_t readiness) = 0;
};

// Watches a non-blocking descriptor (socket, pipe, inotify, eventfd, pidfd) for what Readiness names. Null, with
// errno set, when the kernel refuses it.
std::unique_ptr<Watch> watch(int fd, const std::shared_ptr<SerialQueue>& queue, Watch::Handler handler);

// A timer that runs its closure on the queue once after the delay. Destroying it cancels it (a closure that already
// runs is not waited for). It never runs early; timers of one queue run in the order of their deadlines.
class Timer {
public:
    virtual ~Timer() = default;
};
std::unique_ptr<Timer> after(std::chrono::milliseconds delay, const std::shared_ptr<SerialQueue>& queue,
                             SerialQueue::Work work);

// Something to do behind the work that waits now.
class Deferred {
public:
    virtual ~Deferred() = default;
    virtual void runDeferred() noexcept = 0;  // on any thread, outside every queue's turn
};

// Has it run once, when what waits for a thread now has had its turn, or a millisecond later should some of that take
// longer. False, and nothing is to come, when the caller is not a thread of the pool's, nothing waits, or no other
// thread is free to come for it in time. For what wakes another process: a batch of requests is answered at its end, so
// that who waits for the answers is woken once and not for each of them.
bool defer(std::shared_ptr<Deferred> work);

// The main thread's run loop: lends the calling thread to the pool, forever.
[[noreturn]] void runMainLoop();

// Lends the calling thread to the pool until `done` answers true; `done` is asked, from this thread, after each piece
// of work and whenever `wake` is called. How a program without a run loop waits for a reply without a thread hop.
void runUntil(const std::function<bool()>& done);
void wake();

}  // namespace queue
