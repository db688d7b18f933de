#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "platform/file/UniqueFd.h"
#include "platform/queue/ScheduledList.h"
#include "platform/queue/State.h"
#include "platform/queue/TimerTable.h"
#include "platform/queue/WatchTable.h"

namespace queue {

// The threads that run the queues and wait for the kernel's events. Idle threads all block on one epoll instance, so
// the kernel wakes one of them for an event, the one that went to sleep last. That thread runs the event's handler at
// once, then whatever queue the handler left work for, and only then waits again: a lone request meets one thread.
//
// Work that a pool thread leaves for a queue goes on the list of scheduled queues and wakes nobody as long as it is the
// only entry, because the thread itself comes for it next. When the thread goes on with something long instead (or
// blocks), a timer ("the reminder") gets the entry claimed by another thread within a millisecond.
//
// Created at first use and never destroyed.
class Pool {
public:
    static Pool& shared();

    // Puts a scheduled queue on the list, and wakes a thread for it unless the caller is one that comes for it itself.
    void schedule(std::shared_ptr<SerialQueue::State> queue);

    // The calling thread is about to wait for another one: what it left for itself is somebody else's now.
    void beforeBlocking();

    // Lends the calling thread: forever, or until `done`.
    [[noreturn]] void work();
    void workUntil(const std::function<bool()>& done);

    // Makes every thread in workUntil() ask its `done` again.
    void recall();

    int epoll() const { return epoll_.get(); }
    WatchTable& watches() { return watches_; }
    TimerTable& timers() { return timers_; }

private:
    // A thread in workUntil(); under mutex_.
    struct Lender {
        bool waiting = false;   // on epoll
        bool recalled = false;  // while waiting; counted in recalledLenders_
    };

    Pool();
    void startThreads();
    void watchInternal(int fd, std::uint64_t id, std::uint32_t events) const;

    // One piece of work: a scheduled queue, or else (waiting for it) what the kernel reports. `recallsSeen` is what
    // `recalls_` was when the lender last asked whether it was done.
    void workOnce(Lender* lender, std::uint64_t recallsSeen);
    void waitForEvents(Lender* lender);

    struct Taken {
        bool work = false;         // ran some
        bool recallEvent = false;  // saw that some lender is recalled
        bool recalled = false;     // and it was this one
    };
    Taken takeEvents(int timeout, Lender* lender);
    bool comeBack(Lender& lender);  // from epoll; true when it was recalled
    void report(std::uint64_t id, std::uint32_t readiness, std::shared_ptr<SerialQueue::State>& ours);

    void wakeOne();
    void setReminder();

    const file::UniqueFd epoll_;
    const file::UniqueFd wakeUp_;    // written to get one thread off epoll
    const file::UniqueFd reminder_;  // timer: somebody must look at the list
    const file::UniqueFd recall_;    // readable as long as a recalled lender has not come back
    WatchTable watches_;
    TimerTable timers_;

    std::atomic<bool> wakeUpSent_{false};
    std::atomic<bool> reminderSet_{false};
    std::atomic<unsigned> waiting_{0};  // threads on epoll, or about to be; raised under mutex_
    std::atomic<std::uint64_t> recalls_{0};

    std::mutex mutex_;  // guards what follows; no other lock is taken under it
    ScheduledList scheduled_;
    std::vector<Lender*> lenders_;
    unsigned recalledLenders_ = 0;
    std::condition_variable lendersCameBack_;
    std::condition_variable madeWay_;  // where threads stay that made way for a lender
};

}  // namespace queue
