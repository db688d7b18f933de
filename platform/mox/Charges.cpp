#include "platform/mox/Charges.h"

#include <algorithm>
#include <tuple>

#include "platform/mox/Descriptors.h"

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

bool Ledger::hasDescriptors(std::size_t count) {
    const std::ptrdiff_t missing = static_cast<std::ptrdiff_t>(count) - freeDescriptors();
    if (missing <= 0) return true;
    Notices notices;
    {
        const std::lock_guard lock{mutex_};
        while (closing_ < static_cast<std::size_t>(missing)) {
            Account* const account = greatest(descriptorsOf, nullptr);
            if (account == nullptr) break;
            end(*account, notices);
        }
    }
    notices.deliverAndWait();
    return false;
}

bool Ledger::reserve(Account& account, const Holdings& more) {
    Notices notices;
    bool isIn = false;
    {
        const std::lock_guard lock{mutex_};
        if (account.process_ == nullptr) return false;
        if (account.process_->held.backlog + more.backlog > bounds_.process.backlog) return false;
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
        closing_ -= std::exchange(account.closing_, 0);
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
    notices.excessive.push_back(account.holder_);
    account.closing_ = account.held_.descriptors;
    closing_ += account.closing_;
    remove(account, notices);
}

// The greatest connection of the process that holds most; among equals one without a request, and then the oldest. Of
// connections and descriptors, strangers' go first.
Account* Ledger::greatest(Measure measure, const Account* newcomer) {
    const bool strangersFirst = measure == connectionsOf || measure == descriptorsOf;
    const auto rank = [&](const Process& process, const Account& account) {
        const Holdings& held = account.held_;
        return std::tuple{strangersFirst && !account.greeted_, measure(process.held), measure(held),
                          held.requests == 0 && held.backlog == 0, ~account.serial_};
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
