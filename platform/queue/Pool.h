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
#include "platform/queue/Reactor.h"
#include "platform/queue/ScheduledList.h"
#include "platform/queue/State.h"
#include "platform/queue/TimerTable.h"
#include "platform/queue/WatchTable.h"

namespace queue {

// The threads that run the queues and wait for the kernel's events. One idle thread at a time polls; the others stand
// by. The poller runs an event's handler at once, then whatever queue the handler left work for, and only then polls
// again: a lone request meets one thread. Nobody takes its place in the meantime: an event that arrived would wake a
// second thread for what the first is about to see by itself, and cost each request a change of threads.
//
// Work that a pool thread leaves for a queue goes on the list of scheduled queues and wakes nobody, because the thread
// itself comes for it next. When nobody has polled for a millisecond, because a thread goes on with something long (or
// blocks), a timer ("the reminder") brings one that stands by: it takes what is scheduled, or else polls.
//
// Created at first use and never destroyed.
class Pool {
public:
    static Pool& shared();

    // Puts a scheduled queue on the list, and wakes a thread for it unless the caller is one that comes for it itself.
    void schedule(std::shared_ptr<SerialQueue::State> queue);

    bool defer(std::shared_ptr<Deferred> work);  // as queue::defer()

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
        bool waiting = false;   // for events
        bool recalled = false;  // while waiting; counted in recalledLenders_
    };

    Pool();
    void startThreads();
    static void watchInternal(const file::UniqueFd& epoll, int fd, std::uint64_t id, std::uint32_t events);

    // One piece of work: a scheduled queue, or else (waiting for it) what the kernel reports. `recallsSeen` is what
    // `recalls_` was when the lender last asked whether it was done.
    void workOnce(Lender* lender, std::uint64_t recallsSeen);
    enum class Place { poller, standby, passing };  // passing: looks, and does not wait
    void waitForEvents(Place place, Lender* lender);

    struct Taken {
        bool work = false;         // ran some
        bool recallEvent = false;  // saw that some lender is recalled
        bool recalled = false;     // and it was this one
    };
    Taken takeEvents(Place place, Lender* lender);
    bool comeBack(Lender& lender);  // from waiting; true when it was recalled
    void report(std::uint64_t id, std::uint32_t readiness, std::shared_ptr<WatchState>& ours);

    bool anyoneWaits() const { return polling_ || standbys_ > 0; }
    void wakeOne();
    void beforeWork();
    void runDeferred();
    void setReminder();
    void startReminder();
    bool isTakeOverDue();

    const file::UniqueFd epoll_;        // what the poller waits for
    const file::UniqueFd standby_;      // an epoll instance, too: what gets those that stand by
    const file::UniqueFd wakePoller_;   // each written to get one thread to work
    const file::UniqueFd wakeStandby_;  //
    const file::UniqueFd reminder_;     // timer: somebody must look at the list, or poll
    const file::UniqueFd recall_;       // readable as long as a recalled lender has not come back
    WatchTable watches_;
    TimerTable timers_;

    std::atomic<bool> pollerWoken_{false};
    std::atomic<bool> standbyWoken_{false};
    std::atomic<bool> reminderSet_{false};
    std::atomic<std::uint64_t> polls_{0};          // how often somebody looked at epoll_
    std::atomic<std::uint64_t> pollsReminded_{0};  // when the reminder was started
    std::atomic<bool> polling_{false};             // a thread polls, or is about to; raised under mutex_
    std::atomic<unsigned> standbys_{0};            // threads that stand by, or are about to; raised under mutex_
    std::atomic<std::uint64_t> recalls_{0};

    std::mutex mutex_;  // guards what follows; no other lock is taken under it
    ScheduledList scheduled_;
    std::vector<std::shared_ptr<Deferred>> deferred_;
    std::vector<Lender*> lenders_;
    unsigned recalledLenders_ = 0;
    std::condition_variable lendersCameBack_;
};

}  // namespace queue
