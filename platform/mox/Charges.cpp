#include "platform/mox/Charges.h"

#include <algorithm>

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
    return *this;
}

Holdings& Holdings::operator-=(const Holdings& other) {
    backlog -= other.backlog;
    partial -= other.partial;
    kept -= other.kept;
    requests -= other.requests;
    connections -= other.connections;
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

Account::Account(std::shared_ptr<Ledger> ledger) : ledger_{std::move(ledger)} {}

Account::~Account() {
    close();
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
};

std::shared_ptr<Account> Ledger::open(ProcessKey key) {
    auto account = std::make_shared<Account>(shared_from_this());
    Notices notices;
    {
        const std::lock_guard lock{mutex_};
        Process& process = processes_.try_emplace(key, Process{key, {}, {}}).first->second;
        if (process.held.connections >= bounds_.process.connections) return {};
        account->process_ = &process;
        account->held_ = {.connections = 1};
        process.accounts.push_back(account.get());
        process.held += account->held_;
        total_ += account->held_;
        shedExcess(account.get(), notices);
    }
    notices.deliver();
    return account;
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

// Takes the account, with all that is charged to it, out of the counts.
void Ledger::remove(Account& account, Notices& notices) {
    Process& process = *std::exchange(account.process_, nullptr);
    total_ -= account.held_;
    process.held -= account.held_;
    if (account.paused_) --process.paused;
    std::erase(process.accounts, &account);
    if (process.accounts.empty()) {
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
        Account* account = measure == connectionsOf ? greatest(measure, newcomer, Among::strangers) : nullptr;
        if (account == nullptr) account = greatest(measure, newcomer, Among::all);
        if (account == nullptr) return;
        notices.excessive.push_back(account->holder_);
        remove(*account, notices);
    }
}

// The greatest connection of the process that holds most; the oldest among equals.
Account* Ledger::greatest(Measure measure, const Account* newcomer, Among among) {
    Account* found = nullptr;
    const auto isGreater = [measure](const Holdings& a, const Holdings& b) { return measure(a) > measure(b); };
    for (const auto& [key, process] : processes_) {
        if (found != nullptr && !isGreater(process.held, found->process_->held)) continue;
        Account* candidate = nullptr;
        for (Account* const account : process.accounts) {
            if (account == newcomer || (among == Among::strangers && account->greeted_)) continue;
            if (candidate == nullptr || isGreater(account->held_, candidate->held_)) candidate = account;
        }
        if (candidate != nullptr) found = candidate;
    }
    return found;
}

}  // namespace mox
