#include "platform/queue/Errands.h"

#include <chrono>
#include <utility>

#include <pthread.h>

#include "platform/logging/Invariant.h"
#include "platform/queue/WithoutSignals.h"

namespace queue {

namespace {

constexpr std::size_t kStack = std::size_t{256} << 10;
constexpr std::chrono::seconds kLinger{1};

}  // namespace

Errands& Errands::shared() {
    static Errands& errands = *new Errands{Bounds{}};  // never destroyed: its threads may be stuck
    return errands;
}

Errands::Errands(const Bounds& bounds) : bounds_{bounds} {}

Errands::~Errands() {
    std::unique_lock lock{mutex_};
    ending_ = true;
    admitted_.notify_all();
    ended_.wait(lock, [this] { return threads_ == 0; });
    INVARIANT(running_.empty() && idle_ == 0 && writtenOff_ == 0);
}

void Errands::run(const Owner& owner, Work work, Finish finish) {
    List fresh;
    fresh.push_back({{}, std::move(work), std::move(finish)});
    List refused;  // told so once the lock is given back
    bool wakes = false;
    bool starts = false;
    {
        const std::lock_guard lock{mutex_};
        const auto process = processes_.try_emplace(owner).first;
        fresh.front().owner = process;
        if (process->second.running == bounds_.ofOneOwner) {
            const bool isTooMany = process->second.waiting.size() >= bounds_.waitingOfOwner;
            List& to = isTooMany ? refused : process->second.waiting;
            to.splice(to.end(), fresh);
        } else {
            ++process->second.running;
            ready_.splice(ready_.end(), fresh);
            wakes = idle_ >= ready_.size();
            starts = !wakes && mayStartThread(refused);
        }
    }
    if (wakes) admitted_.notify_one();
    if (starts) startThread(refused);
    for (const Errand& errand : refused) errand.finish(Outcome::refused);
}

bool Errands::isCrowded() const {
    const std::lock_guard lock{mutex_};
    return running_.size() > bounds_.atEase;
}

// Under the lock. Where there are as many as there may be, one is written off for it.
bool Errands::mayStartThread(List& refused) {
    if (threads_ >= bounds_.threadsInAll) {
        refused.splice(refused.end(), ready_, std::prev(ready_.end()));
        release(refused.back().owner);
        return false;
    }
    if (threads_ - writtenOff_ >= bounds_.threads) {
        const auto worst = longestOfWorst();
        if (worst == running_.end()) return false;  // those that were made come for it
        worst->refused = true;
        ++writtenOff_;
        refused.push_back({worst->owner, {}, std::exchange(worst->finish, {})});
    }
    ++threads_;
    INVARIANT(writtenOff_ < threads_ && threads_ <= bounds_.threadsInAll);
    return true;
}

// What has run longest of the process that has most at it.
Errands::List::iterator Errands::longestOfWorst() {
    auto worst = running_.end();
    for (auto errand = running_.begin(); errand != running_.end(); ++errand) {
        if (errand->refused) continue;
        if (worst == running_.end() || errand->owner->second.running > worst->owner->second.running) worst = errand;
    }
    return worst;
}

void Errands::startThread(List& refused) {
    const WithoutSignals inherited;
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setstacksize(&attributes, kStack);
    ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread{};
    const auto body = [](void* self) -> void* {
        ::pthread_setname_np(::pthread_self(), "errand");
        static_cast<Errands*>(self)->threadRuns();
        return nullptr;
    };
    const bool started = ::pthread_create(&thread, &attributes, body, this) == 0;
    ::pthread_attr_destroy(&attributes);
    if (started) return;
    // The system has none to give. Others may have come for the errand in the meantime; nobody will where there are
    // none.
    const std::lock_guard lock{mutex_};
    --threads_;
    for (bool wasMine = true; !ready_.empty() && (wasMine || threads_ == 0); wasMine = false) {
        refused.splice(refused.end(), ready_, std::prev(ready_.end()));
        release(refused.back().owner);
    }
}

void Errands::threadRuns() {
    std::unique_lock lock{mutex_};
    for (;;) {
        while (!ready_.empty()) runOne(lock);
        if (ending_) break;
        ++idle_;
        const bool isWanted = admitted_.wait_for(lock, kLinger, [this] { return ending_ || !ready_.empty(); });
        --idle_;
        if (!isWanted) break;
    }
    INVARIANT(idle_ < threads_);
    --threads_;
    ended_.notify_all();
}

void Errands::runOne(std::unique_lock<std::mutex>& lock) {
    running_.splice(running_.end(), ready_, ready_.begin());
    const auto errand = std::prev(running_.end());
    lock.unlock();
    errand->work();
    lock.lock();
    List over;
    over.splice(over.end(), running_, errand);
    if (errand->refused) --writtenOff_;
    release(errand->owner);
    lock.unlock();
    if (errand->finish) errand->finish(Outcome::done);
    over.clear();  // what it captured goes outside the lock
    lock.lock();
}

// One of the process's is over: the next one that waits is admitted in its place. Under the lock, by a thread that
// comes for it, or where none can be had.
void Errands::release(Processes::iterator owner) {
    Process& process = owner->second;
    INVARIANT(process.running > 0 && process.running <= bounds_.ofOneOwner);
    --process.running;
    if (!process.waiting.empty()) {
        ++process.running;
        ready_.splice(ready_.end(), process.waiting, process.waiting.begin());
        if (idle_ > 0) admitted_.notify_one();
    } else if (process.running == 0) {
        processes_.erase(owner);
    }
}

}  // namespace queue
