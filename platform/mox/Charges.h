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
// many connections, those go first that have not answered the hello.
namespace mox {

struct Holdings {
    std::size_t backlog = 0;
    std::size_t partial = 0;
    std::size_t kept = 0;
    std::size_t requests = 0;
    std::size_t connections = 0;

    Holdings& operator+=(const Holdings& other);
    Holdings& operator-=(const Holdings& other);
    friend bool operator==(const Holdings&, const Holdings&) = default;
};

struct Bounds {
    Holdings connection{.backlog = std::size_t{4} << 20, .requests = 128};
    Holdings process{.backlog = std::size_t{32} << 20, .requests = 1024, .connections = 2048};
    Holdings total{
        .backlog = std::size_t{256} << 20, .requests = 16384, .connections = 8192};  // backlog, partial, kept

    std::chrono::milliseconds drainDeadline{10'000};      // for what waits to be sent
    std::chrono::milliseconds handshakeDeadline{10'000};  // from accept to echo
};

// Who is charged, and told what comes of it. Both are called without locks, from any thread, and only pass it on to the
// holder's own queue.
class Holder {
public:
    virtual ~Holder() = default;
    virtual void readAgain() = 0;     // it was not to read, and now it may
    virtual void endForExcess() = 0;  // it holds most where all together hold too much
};

// Pid and start time: a reused pid is another process.
struct ProcessKey {
    pid_t pid = 0;
    std::uint64_t startTime = 0;
    friend bool operator<(const ProcessKey& a, const ProcessKey& b) {
        return std::tie(a.pid, a.startTime) < std::tie(b.pid, b.startTime);
    }
};

class Account;

// The accounts of one service. Any thread.
class Ledger : public std::enable_shared_from_this<Ledger> {
public:
    explicit Ledger(const Bounds& bounds) : bounds_{bounds} {}

    // An account for a new connection, charged with it; null when its process has as many as it may.
    std::shared_ptr<Account> open(ProcessKey process);

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

    bool change(Account& account, const Holdings& less, const Holdings& more);  // whether the account is past a bound
    bool mayRead(Account& account);
    void close(Account& account);

    bool isOver(const Account& account) const;
    bool isExcessive() const;
    void remove(Account& account, Notices& notices);
    void resume(Process& process, Notices& notices) const;
    void shed(Measure measure, std::size_t bound, const Account* newcomer, Notices& notices);
    void shedExcess(const Account* newcomer, Notices& notices);
    enum class Among { all, strangers };
    Account* greatest(Measure measure, const Account* newcomer, Among among);

    const Bounds bounds_;
    std::mutex mutex_;
    Holdings total_;
    std::map<ProcessKey, Process> processes_;
};

// What one connection holds. Lives as long as anything is charged to it.
class Account {
public:
    explicit Account(std::shared_ptr<Ledger> ledger);
    ~Account();
    Account(const Account&) = delete;
    Account& operator=(const Account&) = delete;

    void setHolder(std::weak_ptr<Holder> holder);

    void setGreeted();  // the peer has answered the hello

    // Whether the connection may be read. After "no", the holder gets readAgain() once it may.
    bool mayRead();

    // The connection has ended: what is still charged to it no longer counts.
    void close();

private:
    friend class Ledger;
    friend class Charge;

    const std::shared_ptr<Ledger> ledger_;

    // Guarded by the ledger's lock.
    Ledger::Process* process_ = nullptr;  // null once closed
    std::weak_ptr<Holder> holder_;
    Holdings held_;
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

    const std::shared_ptr<Account>& account() const { return account_; }

    // Whether the account was past a bound once this was charged to it: then it is to be asked whether to read on.
    bool cameBeyond() const { return beyond_; }

private:
    std::shared_ptr<Account> account_;
    Holdings amount_;
    bool beyond_ = false;
};

}  // namespace mox
