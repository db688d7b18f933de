#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>

#include "platform/queue/Owner.h"

namespace queue {

// Work that may block for as long as somebody outside likes: a path that leads to a file system which a client serves
// itself, a bundle on one. It runs on threads of its own, never on the pool's, so that what blocks holds up only
// whoever brought it.
//
// An errand belongs to the process that brought it. A few of one process run at a time, in the order in which they
// came; the rest of that process's wait. A thread is made when one is needed, and ends when it has had nothing to do
// for a second, so that ordinary errands find one that waits. Where there are as many threads as there may be, the
// process that blocks most is the one to suffer, not who comes next: the errand of its that has run longest is refused,
// its thread written off, and another one made. A thread cannot be taken out of a call that blocks: it stays until the
// call comes back, counts against its owner and against the bound that no number of owners can pass.
//
// Ownership: a waiting errand keeps what its closures captured. One that blocks may keep it for ever, and comes back
// long after the client, the request or the server has gone: capture those weakly, and give to `work` alone what it
// writes to, to be read once `finish` says that it is done.
// Threading: every member may be called from any thread. Work runs without signals and is charged to no account unless
// it charges itself.
// At exit: the shared one is never destroyed, and threads may be in calls that do not come back: leave by
// std::quick_exit or _exit, which wait for no thread. A call that not even a fatal signal interrupts (a file system in
// user space has taken the request and gives no answer) keeps the process's remains until that file system ends.
class Errands {
public:
    using Owner = queue::Owner;

    struct Bounds {
        unsigned ofOneOwner = 4;            // run at a time
        std::size_t waitingOfOwner = 2048;  // what comes beyond is refused
        unsigned threads = 256;             // but for those written off
        unsigned threadsInAll = 1024;       // with them; where these are stuck who comes next is refused, too
        unsigned atEase = 64;               // more that run are a crowd
    };

    enum class Outcome : std::uint8_t {
        done,
        refused,  // nothing may be read of what the work writes: it may be at it still
    };
    using Work = std::function<void()>;
    using Finish = std::function<void(Outcome)>;

    static Errands& shared();

    explicit Errands(const Bounds& bounds);
    Errands(const Errands&) = delete;
    Errands& operator=(const Errands&) = delete;
    ~Errands();  // waits for all that runs

    // Has the work run on a thread that may block, then calls `finish` there; or calls it with a refusal, on any
    // thread, also before run() returns or on behalf of another errand. Exactly once. `finish` must not block: it
    // passes on to a queue what is to be done. Nothing may throw.
    void run(const Owner& owner, Work work, Finish finish);

    // Whether so many run that most of them may be stuck. Work that can tell without blocking whether it would block
    // asks first, and lets be what it would: so no number of owners, living or dead, gets all threads stuck.
    bool isCrowded() const;

private:
    struct Errand;
    struct Process;
    using Processes = std::map<Owner, Process>;
    using List = std::list<Errand>;

    struct Errand {
        Processes::iterator owner;
        Work work;
        Finish finish;         // taken out when it is refused
        bool refused = false;  // while it runs
    };
    struct Process {
        unsigned running = 0;  // or admitted to run
        List waiting;
    };

    bool mayStartThread(List& refused);
    void startThread(List& refused);
    void threadRuns();
    void runOne(std::unique_lock<std::mutex>& lock);
    void release(Processes::iterator owner);
    List::iterator longestOfWorst();

    const Bounds bounds_;
    mutable std::mutex mutex_;  // guards what follows
    std::condition_variable admitted_;
    std::condition_variable ended_;
    bool ending_ = false;
    Processes processes_;
    List ready_;    // admitted, for the next thread
    List running_;  // those that have run longest first
    unsigned threads_ = 0;
    unsigned idle_ = 0;        // of them
    unsigned writtenOff_ = 0;  // of them
};

}  // namespace queue
