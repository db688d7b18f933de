#include "platform/mox/Charges.h"

#include <algorithm>
#include <tuple>

#include "platform/logging/Invariant.h"
#include "platform/mox/transport/Descriptors.h"

namespace mox {

namespace {

std::size_t bytesOf(const Holdings& held) {
    return held.backlog + held.partial + held.kept;
}
std::size_t requestsOf(const Holdings& held) {
    return held.requests;
}
std::size_t connectionsOf(const Holdings& held) {
    return held.connections;
}
std::size_t descriptorsOf(const Holdings& held) {
    return held.descriptors;
}

// What a process has that has one connection and nothing else: none of bytes and requests.
std::size_t singleOf(std::size_t (*measure)(const Holdings&)) {
    return measure({.connections = 1, .descriptors = kConnectionDescriptors});
}

// A peer that is at it answers the hello in far less; where many are not, a newcomer waits as long.
constexpr std::chrono::milliseconds kGreeting{100};
// How long a newcomer waits for those that are being served, where nobody has more than he will.
constexpr std::chrono::milliseconds kServing{250};
// Whoever was told to end has gone by then, or is kept by something that does not come to an end.
constexpr std::chrono::milliseconds kLeaving{100};
// Who waits asks again far sooner.
constexpr std::chrono::milliseconds kAsking{50};

bool covers(const Holdings& all, const Holdings& part) {
    return all.backlog >= part.backlog && all.partial >= part.partial && all.kept >= part.kept &&
           all.requests >= part.requests && all.connections >= part.connections && all.descriptors >= part.descriptors;
}

bool exceeds(const Holdings& held, const Holdings& bound) {
    return held.backlog > bound.backlog || held.requests >= bound.requests;
}

}  // namespace

Holdings& Holdings::operator+=(const Holdings& other) {
    backlog += other.backlog;
    partial += other.partial;
    kept += other.kept;
    requests += other.requests;
    connections += other.connections;
    descriptors += other.descriptors;
    return *this;
}

Holdings& Holdings::operator-=(const Holdings& other) {
    INVARIANT(covers(*this, other));  // nothing is given back twice
    backlog -= other.backlog;
    partial -= other.partial;
    kept -= other.kept;
    requests -= other.requests;
    connections -= other.connections;
    descriptors -= other.descriptors;
    return *this;
}

Charge::Charge(std::shared_ptr<Account> account, const Holdings& amount)
    : account_{std::move(account)}, amount_{amount} {
    if (amount_ != Holdings{}) beyond_ = account_->ledger_->change(*account_, {}, amount_);
}

Charge::~Charge() {
    if (account_ && amount_ != Holdings{}) account_->ledger_->change(*account_, amount_, {});
}

void Charge::change(const Holdings& amount) {
    if (amount == amount_) return;
    account_->ledger_->change(*account_, amount_, amount);
    amount_ = amount;
}

bool Charge::reserve(const Holdings& more) {
    if (!account_) return true;
    if (!account_->ledger_->reserve(*account_, more)) return false;
    amount_ += more;
    return true;
}

Account::Account(std::shared_ptr<Ledger> ledger) : ledger_{std::move(ledger)} {}

Account::~Account() {
    close();
    if (closing_ != 0) ledger_->forget(*this);
}

void Account::setHolder(std::weak_ptr<Holder> holder) {
    const std::lock_guard lock{ledger_->mutex_};
    holder_ = std::move(holder);
}

void Account::setGreeted() {
    const std::lock_guard lock{ledger_->mutex_};
    greeted_ = true;
}

bool Account::mayRead() {
    return ledger_->mayRead(*this);
}

void Account::close() {
    ledger_->close(*this);
}

struct Ledger::Notices {
    std::vector<std::weak_ptr<Holder>> resumed;
    std::vector<std::weak_ptr<Holder>> excessive;

    void deliver() const {
        for (const auto& weak : resumed) {
            if (const auto holder = weak.lock()) holder->readAgain();
        }
        for (const auto& weak : excessive) {
            if (const auto holder = weak.lock()) holder->endForExcess();
        }
    }
    void deliverAndWait() const {
        deliver();
        for (const auto& weak : excessive) {
            if (const auto holder = weak.lock()) holder->letGo();
        }
    }
};

const std::shared_ptr<Ledger>& Ledger::shared() {
    static const auto ledger = std::make_shared<Ledger>(Bounds{});
    return ledger;
}

std::shared_ptr<Account> Ledger::open(Process& process, const Holdings& held) {
    auto account = std::make_shared<Account>(shared_from_this());
    account->process_ = &process;
    account->held_ = held;
    account->serial_ = ++opened_;
    account->opened_ = Clock::now();
    process.accounts.push_back(account.get());
    process.held += held;
    total_ += held;
    return account;
}

std::shared_ptr<Account> Ledger::open(ProcessKey key) {
    std::shared_ptr<Account> account;
    Notices notices;
    {
        const std::lock_guard lock{mutex_};
        Process& process = processes_.try_emplace(key, Process{key, {}, {}}).first->second;
        if (process.held.connections >= bounds_.process.connections) return {};
        account = open(process, {.connections = 1, .descriptors = kConnectionDescriptors});
        shedExcess(account.get(), notices);
    }
    notices.deliver();
    return account;
}

std::shared_ptr<Account> Ledger::openShared(ProcessKey key) {
    const std::lock_guard lock{mutex_};
    const auto found = processes_.find(key);
    // Without a connection there is nobody to share.
    return found == processes_.end() ? std::make_shared<Account>(shared_from_this()) : open(found->second, {});
}

Room Ledger::makeRoom(std::size_t descriptors, const Account* asking) {
    if (freeDescriptors() >= static_cast<std::ptrdiff_t>(descriptors)) return Room::now;
    Notices notices;
    Room room = Room::soon;
    {
        const std::lock_guard lock{mutex_};
        // Counted again: what others have ended meanwhile must not be ended twice.
        const std::ptrdiff_t missing = static_cast<std::ptrdiff_t>(descriptors) - freeDescriptors();
        if (missing <= 0) return Room::now;
        const auto now = Clock::now();
        while (leaving(now) < static_cast<std::size_t>(missing)) {
            Account* const account = greatest(descriptorsOf, nullptr);
            if (account == nullptr || !mayMakeRoom(*account, asking, descriptors, now)) {
                if (asking != nullptr) room = Room::no;
                break;
            }
            end(*account, notices);
        }
    }
    notices.deliverAndWait();
    return room;
}

bool Ledger::reserve(Account& account, const Holdings& more) {
    Notices notices;
    bool isIn = false;
    {
        const std::lock_guard lock{mutex_};
        if (account.process_ == nullptr) return false;
        // A process with next to nothing waiting may have one reply as large as what all together may have: a discovery
        // of everything that is installed.
        const std::size_t waiting = account.process_->held.backlog;
        if (waiting > bounds_.connection.backlog && waiting + more.backlog > bounds_.process.backlog) return false;
        for (Holdings* held : {&account.held_, &account.process_->held, &total_}) *held += more;
        shedExcess(nullptr, notices);
        isIn = account.process_ != nullptr;
    }
    notices.deliverAndWait();
    return isIn;
}

// Every request comes by here twice, and nearly none has any consequences.
bool Ledger::change(Account& account, const Holdings& less, const Holdings& more) {
    Notices notices;
    bool isBeyond = false;
    {
        const std::lock_guard lock{mutex_};
        if (account.process_ == nullptr) return false;
        for (Holdings* held : {&account.held_, &account.process_->held, &total_}) {
            *held += more;
            *held -= less;
        }
        isBeyond = isOver(account);
        if (account.process_->paused == 0 && !isExcessive()) return isBeyond;
        resume(*account.process_, notices);
        shedExcess(nullptr, notices);
    }
    notices.deliver();
    return isBeyond;
}

bool Ledger::isExcessive() const {
    return bytesOf(total_) > bounds_.total.backlog || total_.requests > bounds_.total.requests ||
           total_.connections > bounds_.total.connections;
}

bool Ledger::mayRead(Account& account) {
    const std::lock_guard lock{mutex_};
    if (account.process_ == nullptr) return true;
    const bool over = isOver(account);
    if (over && !account.paused_) ++account.process_->paused;
    if (!over && account.paused_) --account.process_->paused;
    account.paused_ = over;
    return !over;
}

void Ledger::close(Account& account) {
    Notices notices;
    {
        const std::lock_guard lock{mutex_};
        if (account.process_ != nullptr) remove(account, notices);
    }
    notices.deliver();
}

bool Ledger::isOver(const Account& account) const {
    return exceeds(account.held_, bounds_.connection) || exceeds(account.process_->held, bounds_.process);
}

Holdings Ledger::sumOf(const std::vector<Account*>& accounts) {
    Holdings sum;
    for (const Account* const account : accounts) sum += account->held_;
    return sum;
}

// Takes the account, with all that is charged to it, out of the counts.
void Ledger::remove(Account& account, Notices& notices) {
    Process& process = *std::exchange(account.process_, nullptr);
    INVARIANT(process.held == sumOf(process.accounts));
    INVARIANT(covers(total_, process.held) && process.paused <= process.accounts.size());
    total_ -= account.held_;
    process.held -= account.held_;
    if (account.paused_) --process.paused;
    std::erase(process.accounts, &account);
    if (process.held.connections == 0) {
        // What is left are accounts of what connections shared.
        for (Account* const shared : process.accounts) shared->process_ = nullptr;
        total_ -= process.held;
        processes_.erase(ProcessKey{process.key});
    } else {
        resume(process, notices);
    }
}

void Ledger::resume(Process& process, Notices& notices) const {
    if (process.paused == 0) return;
    for (Account* const account : process.accounts) {
        if (!account->paused_ || isOver(*account)) continue;
        account->paused_ = false;
        --process.paused;
        notices.resumed.push_back(account->holder_);
    }
}

void Ledger::shedExcess(const Account* newcomer, Notices& notices) {
    shed(bytesOf, bounds_.total.backlog, newcomer, notices);
    shed(requestsOf, bounds_.total.requests, newcomer, notices);
    shed(connectionsOf, bounds_.total.connections, newcomer, notices);
}

// Takes out as many of the greatest connections as brings the total down again.
void Ledger::shed(Measure measure, std::size_t bound, const Account* newcomer, Notices& notices) {
    while (measure(total_) > bound) {
        Account* const account = greatest(measure, newcomer);
        if (account == nullptr) return;
        end(*account, notices);
    }
}

void Ledger::end(Account& account, Notices& notices) {
    INVARIANT(account.process_ != nullptr && account.closing_ == 0);  // nobody is ended twice
    notices.excessive.push_back(account.holder_);
    account.closing_ = account.held_.descriptors;
    account.closingRound_ = closingRound_;
    closing_ += account.closing_;
    closingChanged_ = Clock::now();
    remove(account, notices);
}

// Whether the greatest connection is to be ended for one more descriptor.
bool Ledger::mayMakeRoom(const Account& account, const Account* asking, std::size_t descriptors,
                         Clock::time_point now) {
    const std::size_t most = account.process_->held.descriptors;
    if (asking != nullptr)
        return asking->process_ != nullptr && most > asking->process_->held.descriptors + descriptors;
    if (most > singleOf(descriptorsOf) || !isServed(account, now)) return true;
    if (now - std::exchange(wantedLast_, now) >= kAsking) wanted_ = now;
    if (now - wanted_ < kServing) return false;
    wanted_ = now;
    return true;
}

// Or is about to be: who has just come is.
bool Ledger::isServed(const Account& account, Clock::time_point now) {
    if (!account.greeted_) return now - account.opened_ < kGreeting;
    return account.held_.requests != 0 || account.held_.backlog != 0;
}

// How many descriptors there will be without ending anybody else. What stays open for longer no longer counts: a
// newcomer would wait for it as long.
std::size_t Ledger::leaving(Clock::time_point now) {
    if (closing_ != 0 && now - closingChanged_ >= kLeaving) {
        closing_ = 0;
        ++closingRound_;
    }
    return closing_;
}

// Only now has all that was charged to the account gone, and with it what the process had open for it.
void Ledger::forget(Account& account) {
    const std::lock_guard lock{mutex_};
    if (account.closingRound_ != closingRound_) return;
    INVARIANT(closing_ >= account.closing_);
    closing_ -= account.closing_;
    closingChanged_ = Clock::now();
}

// The greatest connection of the process that holds most; among equals one that is not being served, and then the
// oldest. Of connections and descriptors, whoever has more than one connection comes before all others; among such, and
// among the others, a stranger's goes first that has had time to answer the hello, and of the greatest process any.
Account* Ledger::greatest(Measure measure, const Account* newcomer) {
    const std::size_t single = singleOf(measure);
    const auto now = Clock::now();
    const auto rank = [&](const Process& process, const Account& account) {
        const bool isStranger = single != 0 && !account.greeted_;
        return std::tuple{single != 0 && measure(process.held) > single,
                          isStranger && now - account.opened_ >= kGreeting,
                          measure(process.held),
                          isStranger && measure(process.held) > single,
                          measure(account.held_),
                          !isServed(account, now),
                          ~account.serial_};
    };
    Account* found = nullptr;
    decltype(rank(std::declval<Process&>(), std::declval<Account&>())) highest;
    for (const auto& [key, process] : processes_) {
        for (Account* const account : process.accounts) {
            if (account == newcomer || account->held_.connections == 0) continue;
            const auto its = rank(process, *account);
            if (found != nullptr && its <= highest) continue;
            found = account;
            highest = its;
        }
    }
    return found;
}

}  // namespace mox
