#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <tuple>
#include <utility>
#include <vector>

// What peers make a service hold. All peers have one uid, so what they cost is counted by connection, by process and in
// total. Each thing that costs something carries a Charge, which gives it back when the thing goes.
//
// Two of the counts drain by themselves: bytes of unanswered requests and of replies that wait to be sent (`backlog`),
// and the number of those requests. A connection is not read while they are past its own bound or its process's. Bytes
// of frames that came in part wait for the peer, and what the service keeps for it (`kept`) stays until it takes it
// back: neither pauses anything, since that would keep the peer from ending it, but both count in the total. Where the
// total is reached the process that holds most loses its greatest connection; who came last is not to blame. Of too
// many connections the process that has most loses one: first one that has not answered the hello, else the one that
// has been there longest without a request. Nobody loses his only connection while somebody has more than that.
//
// Descriptors are the whole process's, and files need them, too: what peers may have of them is what is really free
// when somebody asks, less a reserve that is never theirs. Who asks for one more and has most already gets none.
namespace mox {

struct Holdings {
    std::size_t backlog = 0;
    std::size_t partial = 0;
    std::size_t kept = 0;
    std::size_t requests = 0;
    std::size_t connections = 0;
    std::size_t descriptors = 0;  // of connections, and of files that wait in replies

    Holdings& operator+=(const Holdings& other);
    Holdings& operator-=(const Holdings& other);
    friend bool operator==(const Holdings&, const Holdings&) = default;
};

struct Bounds {
    Holdings connection{.backlog = std::size_t{4} << 20, .requests = 128};
    Holdings process{.backlog = std::size_t{64} << 20, .requests = 1024, .connections = 2048};
    Holdings total{
        .backlog = std::size_t{256} << 20, .requests = 16384, .connections = 8192};  // backlog, partial, kept

    std::chrono::milliseconds drainDeadline{10'000};      // for what waits to be sent
    std::chrono::milliseconds handshakeDeadline{10'000};  // from accept to echo
};

// Who is charged, and told what comes of it. All are called without the ledger's lock, from any thread. The first two
// only pass it on to the holder's own queue.
class Holder {
public:
    virtual ~Holder() = default;
    virtual void readAgain() = 0;     // it was not to read, and now it may
    virtual void endForExcess() = 0;  // it holds most where all together hold too much
    virtual void letGo() = 0;  // it is ended so, and somebody waits for what it holds: gives up what it can at once
};

// Pid and start time: a reused pid is another process.
struct ProcessKey {
    pid_t pid = 0;
    std::uint64_t startTime = 0;
    friend bool operator<(const ProcessKey& a, const ProcessKey& b) {
        return std::tie(a.pid, a.startTime) < std::tie(b.pid, b.startTime);
    }
};

// Whether there are descriptors.
enum class Room {
    now,
    soon,  // ask again in a moment
    no,    // who asks has most of them
};

class Account;

// The accounts of a process's services. Any thread.
class Ledger : public std::enable_shared_from_this<Ledger> {
public:
    explicit Ledger(const Bounds& bounds) : bounds_{bounds} {}

    // The one that all services of this process share, unless they have bounds of their own.
    static const std::shared_ptr<Ledger>& shared();

    // An account for a new connection, charged with it; null when its process has as many as it may.
    std::shared_ptr<Account> open(ProcessKey process);

    // An account for what the connections of a process share. It has no holder, and goes with the last of them.
    std::shared_ptr<Account> openShared(ProcessKey process);

    // Whether there are so many descriptors for peers now. If not, those who hold most are ended, as long as that is
    // not who asks (null: a newcomer), so that there will be as soon as they have gone. Where nobody has more than one
    // connection, one that is being served is left alone for a moment. Not with a lock held that a holder may want.
    Room makeRoom(std::size_t descriptors, const Account* asking);

    const Bounds& bounds() const { return bounds_; }

private:
    friend class Account;
    friend class Charge;

    struct Process {
        const ProcessKey key;
        Holdings held;
        std::vector<Account*> accounts;  // the oldest first
        std::size_t paused = 0;          // how many of them
    };
    struct Notices;  // what holders are told once the lock is given back
    using Measure = std::size_t (*)(const Holdings&);
    using Clock = std::chrono::steady_clock;

    std::shared_ptr<Account> open(Process& process, const Holdings& held);
    bool change(Account& account, const Holdings& less, const Holdings& more);  // whether the account is past a bound
    bool reserve(Account& account, const Holdings& more);
    bool mayRead(Account& account);
    void close(Account& account);
    void forget(Account& account);

    static Holdings sumOf(const std::vector<Account*>& accounts);
    static bool isServed(const Account& account, Clock::time_point now);
    bool isOver(const Account& account) const;
    bool isExcessive() const;
    void end(Account& account, Notices& notices);
    void remove(Account& account, Notices& notices);
    void resume(Process& process, Notices& notices) const;
    void shed(Measure measure, std::size_t bound, const Account* newcomer, Notices& notices);
    void shedExcess(const Account* newcomer, Notices& notices);
    Account* greatest(Measure measure, const Account* newcomer);
    bool mayMakeRoom(const Account& account, const Account* asking, std::size_t descriptors, Clock::time_point now);
    std::size_t leaving(Clock::time_point now);

    const Bounds bounds_;
    std::mutex mutex_;  // guards what follows
    Holdings total_;
    std::size_t closing_ = 0;           // descriptors of those who were told to end and are still there
    Clock::time_point closingChanged_;  // when
    std::uint64_t closingRound_ = 0;    // of counting them
    Clock::time_point wanted_;          // since when a newcomer has waited for somebody to be idle
    Clock::time_point wantedLast_;      // when he last asked
    std::uint64_t opened_ = 0;          // accounts so far
    std::map<ProcessKey, Process> processes_;
};

// What one connection holds. Lives as long as anything is charged to it.
class Account {
public:
    explicit Account(std::shared_ptr<Ledger> ledger);  // out of all counts: Ledger::open() takes it in
    ~Account();
    Account(const Account&) = delete;
    Account& operator=(const Account&) = delete;

    void setHolder(std::weak_ptr<Holder> holder);

    void setGreeted();  // the peer has answered the hello

    // Whether the connection may be read. After "no", the holder gets readAgain() once it may.
    bool mayRead();

    // The connection has ended: what is still charged to it no longer counts.
    void close();

    const std::shared_ptr<Ledger>& ledger() const { return ledger_; }

private:
    friend class Ledger;
    friend class Charge;

    const std::shared_ptr<Ledger> ledger_;

    // Guarded by the ledger's lock.
    Ledger::Process* process_ = nullptr;  // null once closed
    std::weak_ptr<Holder> holder_;
    Holdings held_;
    std::uint64_t serial_ = 0;  // the order of coming
    Ledger::Clock::time_point opened_;
    std::size_t closing_ = 0;  // descriptors, once told to end
    std::uint64_t closingRound_ = 0;
    bool paused_ = false;
    bool greeted_ = false;
};

// So much of an account, given back when the charge goes.
class Charge {
public:
    Charge() = default;
    Charge(std::shared_ptr<Account> account, const Holdings& amount);
    Charge(Charge&& other) noexcept
        : account_{std::move(other.account_)}, amount_{std::exchange(other.amount_, {})}, beyond_{other.beyond_} {}
    Charge& operator=(Charge&&) = delete;
    ~Charge();

    void change(const Holdings& amount);  // to this much

    // Adds so much before it exists: at no moment is more held than the process and all together may. Where that would
    // be too much in all, those who hold most are ended first, and have given up what they held when this returns.
    // False, and nothing is added, when it is too much for the process, or the account itself was ended. Not with a
    // lock held that a holder may want.
    [[nodiscard]] bool reserve(const Holdings& more);

    const std::shared_ptr<Account>& account() const { return account_; }

    // Whether the account was past a bound once this was charged to it: then it is to be asked whether to read on.
    bool cameBeyond() const { return beyond_; }

private:
    std::shared_ptr<Account> account_;
    Holdings amount_;
    bool beyond_ = false;
};

}  // namespace mox
