#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "platform/queue/SerialQueue.h"

// Sockets, timers and other descriptors, watched by the same small pool that runs the serial queues. A handler runs as
// a closure of the queue given for it, so that it never overlaps with that queue's other work.
namespace queue {

// A descriptor being watched. Level of detail: readiness is reported once per change (edge-triggered), so a handler
// reads or writes until the call would block, or asks to be called again with `again()`.
//
// Ownership: does not own the descriptor, which must stay open until the watch is gone. Destroying the watch, from any
// thread, ends it: a handler that already runs is not waited for, but none starts afterwards. Handlers therefore
// capture their owner weakly.
class Watch {
public:
    enum Readiness : std::uint32_t { readable = 1, writable = 2, hangup = 4 };
    using Handler = std::function<void(std::uint32_t readiness)>;

    virtual ~Watch() = default;

    // Suspends and resumes the reporting of readable (and hangup with data pending): how a busy peer is not read.
    // After resuming, readiness that was missed is reported.
    virtual void setReading(bool reading) = 0;

    // Queues the handler once more, with the readiness given: for a handler that stopped before it had read all.
    virtual void again(std::uint32_t readiness) = 0;
};

// Watches a non-blocking descriptor (socket, pipe, inotify, eventfd, pidfd) for everything Readiness names. Null, with
// errno set, when the kernel refuses it.
std::unique_ptr<Watch> watch(int fd, const std::shared_ptr<SerialQueue>& queue, Watch::Handler handler);

// A timer that runs its closure on the queue once after the delay. Destroying it cancels it (a closure that already
// runs is not waited for).
class Timer {
public:
    virtual ~Timer() = default;
};
std::unique_ptr<Timer> after(std::chrono::milliseconds delay, const std::shared_ptr<SerialQueue>& queue,
                             SerialQueue::Work work);

// The main thread's run loop: lends the calling thread to the pool, forever.
[[noreturn]] void runMainLoop();

// Lends the calling thread to the pool until `done` answers true; `done` is asked, from this thread, after each piece
// of work and whenever `wake` is called. How a program without a run loop waits for a reply without a thread hop.
void runUntil(const std::function<bool()>& done);
void wake();

}  // namespace queue
