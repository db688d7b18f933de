#include "platform/queue/Pool.h"

#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <system_error>
#include <thread>
#include <utility>

#include <pthread.h>

#include "platform/logging/Invariant.h"
#include "platform/queue/SystemCall.h"
#include "platform/queue/WithoutSignals.h"

// How it works. A thread of the pool goes round in workOnce(): it takes a scheduled queue and drains it; with none on
// the list it sends the replies that were held back (deferred_); with none of those it waits. The first that waits is
// the poller, in epoll_; all others stand by, in standby_, which holds nothing but the means to wake one of them. So
// there are three states that the wake-ups distinguish: one polls, some stand by, or all are at work.
//
// What arrives wakes the poller, which gives up the place before it works, and does not hand it on: it will be back in
// microseconds. Only when it is not, a second thread is worth its change of core, and only the clock can tell: before
// work of unknown length the poller arms the reminder, which expires a millisecond later among those that stand by.
// That one looks whether anybody has polled since (polls_ against pollsReminded_): if so, it arms the reminder again
// and goes on standing by; if not, it runs what is left behind and becomes the poller. The reminder is armed once for
// many requests, not once for each: under load it costs one system call in a millisecond.
//
// A lender is a foreign thread that works until what it waits for has happened. That may happen on another thread while
// the lender sleeps in epoll_wait, and no call wakes one sleeper among several. recall() therefore raises a level: the
// recall_ event stays readable until each recalled lender has come back, and whoever else it wakes waits aside for that
// (waitForEvents), so that the kernel can only wake a lender next. recallsSeen closes the gap between asking `done` and
// going to sleep.
//
// Order of locks: mutex_ is taken last, nothing is called under it but the lists themselves. polling_ and standbys_ are
// raised under it and read without: who reads them too high wakes somebody in vain, who reads them too low is at work
// itself and looks at the list before it sleeps.
namespace queue {
namespace {

constexpr unsigned kMostThreads = 8;
constexpr int kEventsAtOnce = 16;
constexpr std::size_t kMostDeferred = 64;
constexpr long kReminderNanoseconds = 1'000'000;

constexpr std::uint64_t kWakePoller = WatchTable::kNoWatch + 1;
constexpr std::uint64_t kWakeStandby = WatchTable::kNoWatch + 2;
constexpr std::uint64_t kReminder = WatchTable::kNoWatch + 3;
constexpr std::uint64_t kRecall = WatchTable::kNoWatch + 4;
constexpr std::uint64_t kTimers = WatchTable::kNoWatch + 5;

// The pool's threads, and those lent to it, come back to the list of scheduled queues by themselves.
thread_local unsigned lent = 0;
thread_local unsigned itemsSinceEvents = 0;

class Lending {
public:
    Lending() { ++lent; }
    Lending(const Lending&) = delete;
    Lending& operator=(const Lending&) = delete;
    ~Lending() { --lent; }
};

void write(const file::UniqueFd& eventFd) {
    const std::uint64_t one = 1;
    // Fails only at the counter's end, and then it is readable anyway.
    [[maybe_unused]] const ssize_t written = ::write(eventFd.get(), &one, sizeof one);
}

void clear(const file::UniqueFd& eventFd) {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t taken = ::read(eventFd.get(), &count, sizeof count);
}

std::uint32_t readinessOf(std::uint32_t events) {
    std::uint32_t readiness = 0;
    if ((events & (EPOLLIN | EPOLLPRI)) != 0) readiness |= Watch::readable;
    if ((events & EPOLLOUT) != 0) readiness |= Watch::writable;
    if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) readiness |= Watch::hangup;
    return readiness;
}

}  // namespace

Pool& Pool::shared() {
    // Never destroyed: its threads may still run when static objects go.
    static Pool& pool = []() -> Pool& {
        auto* const made = new Pool;
        made->startThreads();
        return *made;
    }();
    return pool;
}

Pool::Pool()
    : epoll_{required("epoll_create1", ::epoll_create1(EPOLL_CLOEXEC))},
      standby_{required("epoll_create1", ::epoll_create1(EPOLL_CLOEXEC))},
      wakePoller_{required("eventfd", ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))},
      wakeStandby_{required("eventfd", ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))},
      reminder_{required("timerfd_create", ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK))},
      recall_{required("eventfd", ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))} {
    // Edge-triggered, these need no read: each write and each expiry is an event of its own.
    watchInternal(epoll_, wakePoller_.get(), kWakePoller, EPOLLIN | EPOLLET);
    watchInternal(epoll_, timers_.fd(), kTimers, EPOLLIN | EPOLLET);
    watchInternal(epoll_, recall_.get(), kRecall, EPOLLIN);
    watchInternal(standby_, wakeStandby_.get(), kWakeStandby, EPOLLIN | EPOLLET);
    watchInternal(standby_, reminder_.get(), kReminder, EPOLLIN | EPOLLET);
    watchInternal(standby_, recall_.get(), kRecall, EPOLLIN);
}

void Pool::watchInternal(const file::UniqueFd& epoll, int fd, std::uint64_t id, std::uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    required("epoll_ctl", ::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, fd, &event));
}

void Pool::startThreads() {
    const WithoutSignals inherited;
    const unsigned count = std::clamp(std::thread::hardware_concurrency(), 2U, kMostThreads);
    for (unsigned started = 0; started < count; ++started) {
        try {
            std::thread thread{[this] { work(); }};
            ::pthread_setname_np(thread.native_handle(), "queue");
            thread.detach();
        } catch (const std::system_error& refused) {
            // With fewer threads everything still works, with none nothing does.
            if (started == 0) logging::internalInconsistency(refused.what(), "Pool");
            return;
        }
    }
}

void Pool::schedule(std::shared_ptr<SerialQueue::State> queue) {
    bool wakes = false;
    {
        const std::lock_guard lock{mutex_};
        scheduled_.push(std::move(queue));
        if (!anyoneWaits()) return;  // everybody is at work and will look here
        wakes = lent == 0;
    }
    if (wakes) {
        wakeOne();
    } else {
        setReminder();
    }
}

// The calling thread comes for it when it has done what waits; should that take long, the reminder brings another one,
// for which one must stand by.
bool Pool::defer(std::shared_ptr<Deferred> work) {
    if (lent == 0) return false;
    const bool hasMore = SerialQueue::State::currentHasMore();
    {
        const std::lock_guard lock{mutex_};
        const bool nothingWaits = !hasMore && scheduled_.size() == 0;
        if (nothingWaits || standbys_ == 0 || deferred_.size() >= kMostDeferred) return false;
        deferred_.push_back(std::move(work));
    }
    setReminder();
    return true;
}

void Pool::runDeferred() {
    std::vector<std::shared_ptr<Deferred>> work;
    {
        const std::lock_guard lock{mutex_};
        work.swap(deferred_);
    }
    for (const auto& each : work) each->runDeferred();
}

void Pool::beforeBlocking() {
    {
        const std::lock_guard lock{mutex_};
        if ((scheduled_.size() == 0 && deferred_.empty()) || !anyoneWaits()) return;
    }
    wakeOne();
}

// One that stands by, if there is one, so that the poller goes on polling.
void Pool::wakeOne() {
    if (standbys_ > 0) {
        if (!standbyWoken_.exchange(true)) write(wakeStandby_);
    } else {
        if (!pollerWoken_.exchange(true)) write(wakePoller_);
    }
}

// Before work of unknown length: should it be long, somebody else takes over.
void Pool::beforeWork() {
    if (!polling_ && standbys_ > 0) setReminder();
}

void Pool::setReminder() {
    if (reminderSet_ || reminderSet_.exchange(true)) return;
    startReminder();
}

// Whether those at work have got stuck, or leave waiting what nobody who polls would see. As long as one of them polls
// now and then there is nothing to take over: a second thread would only share the first one's work, at the price of
// its cache and its core.
bool Pool::isTakeOverDue() {
    if (polling_) {
        reminderSet_ = false;  // whoever polls sets it again before it works
        const std::lock_guard lock{mutex_};
        return scheduled_.size() > 0 || !deferred_.empty();
    }
    if (polls_ == pollsReminded_) return true;
    startReminder();
    return false;
}

void Pool::startReminder() {
    pollsReminded_ = polls_.load();
    itimerspec when{};
    when.it_value.tv_nsec = kReminderNanoseconds;
    required("timerfd_settime", ::timerfd_settime(reminder_.get(), 0, &when, nullptr));
}

void Pool::work() {
    const Lending lending;
    for (;;) workOnce(nullptr, 0);
}

void Pool::workUntil(const std::function<bool()>& done) {
    Lender lender;
    {
        const std::lock_guard lock{mutex_};
        lenders_.push_back(&lender);
    }
    {
        const Lending lending;
        for (;;) {
            const std::uint64_t recallsSeen = recalls_;
            if (done()) break;
            workOnce(&lender, recallsSeen);
        }
    }
    {
        const std::lock_guard lock{mutex_};
        INVARIANT(std::count(lenders_.begin(), lenders_.end(), &lender) == 1 && !lender.recalled);
        std::erase(lenders_, &lender);
    }
    beforeBlocking();
}

void Pool::workOnce(Lender* lender, std::uint64_t recallsSeen) {
    std::shared_ptr<SerialQueue::State> queue;
    bool hasDeferred = false;
    Place place = Place::poller;
    {
        const std::lock_guard lock{mutex_};
        queue = scheduled_.pop();
        hasDeferred = !queue && !deferred_.empty();
        if (!queue && !hasDeferred) {
            if (lender != nullptr && recalls_ != recallsSeen) return;
            if (polling_) {
                place = Place::standby;
                ++standbys_;
            } else {
                polling_ = true;
            }
            if (lender != nullptr) lender->waiting = true;
        }
    }
    if (hasDeferred) {
        beforeWork();
        runDeferred();
        return;
    }
    if (!queue) {
        waitForEvents(place, lender);
        return;
    }
    Item* const first = queue->take();
    if (first == nullptr) return;
    beforeWork();
    itemsSinceEvents += queue->drain(first);
    if (itemsSinceEvents >= SerialQueue::State::kBatch && !anyoneWaits()) {
        runDeferred();
        takeEvents(Place::passing, nullptr);  // nobody else would
    }
}

Pool::Taken Pool::takeEvents(Place place, Lender* lender) {
    std::array<epoll_event, kEventsAtOnce> events;  // NOLINT(*-member-init): the kernel fills what is read
    const file::UniqueFd& epoll = place == Place::standby ? standby_ : epoll_;
    int count = 0;
    do {
        // That it changes is all that counts.
        if (place != Place::standby)
            polls_.store(polls_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        count = ::epoll_wait(epoll.get(), events.data(), kEventsAtOnce, place == Place::passing ? 0 : -1);
    } while (place == Place::standby && count == 1 && events.front().data.u64 == kReminder && !isTakeOverDue());
    INVARIANT(place != Place::poller || polling_);  // one polls at a time
    INVARIANT(place != Place::standby || standbys_ > 0);
    if (place == Place::poller) polling_.store(false, std::memory_order_release);
    if (place == Place::standby) --standbys_;
    itemsSinceEvents = 0;

    Taken taken;
    if (lender != nullptr) taken.recalled = comeBack(*lender);
    std::shared_ptr<WatchState> ours;
    for (int i = 0; i < count; ++i) {
        const epoll_event& event = events.at(static_cast<std::size_t>(i));
        switch (event.data.u64) {
            case kWakePoller: pollerWoken_ = false; break;
            case kWakeStandby: standbyWoken_ = false; break;
            case kReminder: reminderSet_ = false; break;
            case kTimers: timers_.expire(); break;
            case kRecall: taken.recallEvent = true; break;
            default: report(event.data.u64, readinessOf(event.events), ours);
        }
    }
    if (place == Place::standby) runDeferred();  // before all that is scheduled: it has waited long enough
    if (ours) {
        taken.work = true;
        beforeWork();
        itemsSinceEvents += ours->queue()->drain(ours.get());
    }
    return taken;
}

// The first watch whose queue was idle is ours, with that queue's turn; the others are the pool's.
void Pool::report(std::uint64_t id, std::uint32_t readiness, std::shared_ptr<WatchState>& ours) {
    std::shared_ptr<WatchState> watch = watches_.find(id);
    if (!watch) return;
    using Claim = SerialQueue::State::Claim;
    if (!watch->observe(readiness, ours ? Claim::pool : Claim::caller)) return;
    if (ours) {
        schedule(watch->queue());
    } else {
        ours = std::move(watch);
    }
}

// A recalled lender has to get off epoll, but the kernel cannot be told which thread to wake. So the event stays until
// the lender has come back, and every other thread that gets it makes way.
void Pool::waitForEvents(Place place, Lender* lender) {
    const Taken taken = takeEvents(place, lender);
    if (!taken.recallEvent || taken.recalled || taken.work) return;
    std::unique_lock lock{mutex_};
    lendersCameBack_.wait(lock, [this] { return recalledLenders_ == 0; });
}

bool Pool::comeBack(Lender& lender) {
    const std::lock_guard lock{mutex_};
    lender.waiting = false;
    if (!std::exchange(lender.recalled, false)) return false;
    INVARIANT(recalledLenders_ > 0);
    if (--recalledLenders_ == 0) {
        clear(recall_);
        lendersCameBack_.notify_all();
    }
    return true;
}

void Pool::recall() {
    const std::lock_guard lock{mutex_};
    ++recalls_;
    const unsigned before = recalledLenders_;
    for (Lender* lender : lenders_) {
        if (!lender->waiting || std::exchange(lender->recalled, true)) continue;
        ++recalledLenders_;
    }
    if (before == 0 && recalledLenders_ > 0) write(recall_);
}

}  // namespace queue
