#include <algorithm>
#include <cerrno>
#include <chrono>
#include <map>
#include <mutex>
#include <utility>

#include "platform/logging/Log.h"
#include "platform/notify/Counter.h"
#include "platform/notify/Notify.h"
#include "platform/queue/Reactor.h"

namespace notify {

namespace {

using std::chrono::milliseconds;
constexpr milliseconds kFirstRetry{1};
constexpr milliseconds kLastRetry{100};
constexpr unsigned kRetriesUntilSaid = 10;
// Of the first post only: those that come while it is owed wait for nothing.
constexpr int kAttempts = 100;

// The posts of this process that wait for another one to give a counter's lock back. Those of one notification add up.
class Posts {
public:
    static Posts& shared() {
        static Posts& posts = *new Posts;  // never destroyed: queues may still post while the process ends
        return posts;
    }

    std::optional<value::Error> make(const std::string& name, std::uint64_t times) {
        const std::lock_guard lock{mutex_};
        const auto [waiting, isFirst] = waiting_.try_emplace(name);
        waiting->second += times;
        return isFirst ? settle(name, kAttempts) : std::nullopt;
    }

    // The lock of these posts is given back between the tries, each of which takes 20 ms or so where another process
    // has the counter's.
    bool settleAll(milliseconds patience) {
        const auto end = std::chrono::steady_clock::now() + patience;
        for (;;) {
            const std::lock_guard lock{mutex_};
            const std::map<std::string, std::uint64_t> waiting = waiting_;
            for (const auto& [name, posts] : waiting) {
                if (const auto error = settle(name, kAttempts)) logging::error(error->localizedDescription());
            }
            if (waiting_.empty() || std::chrono::steady_clock::now() >= end) return waiting_.empty();
        }
    }

private:
    std::optional<value::Error> settle(const std::string& name, int attempts) {
        const auto waiting = waiting_.find(name);
        auto error = raiseCounter(name, waiting->second, attempts);
        if (error && error->code == EWOULDBLOCK) {
            retryLater();
            return {};
        }
        waiting_.erase(waiting);
        return error;
    }

    void retryLater() {
        if (timer_) return;
        timer_ = queue::after(delay_, queue_, [this] { retry(); });
    }

    void retry() {
        const std::lock_guard lock{mutex_};
        timer_.reset();
        delay_ = std::min(2 * delay_, kLastRetry);
        const bool isSaid = ++retries_ == kRetriesUntilSaid;
        const std::map<std::string, std::uint64_t> waiting = waiting_;
        for (const auto& [name, posts] : waiting) {
            if (isSaid)
                logging::warning("another process keeps the lock of the counter of " + name + "; its posts wait");
            if (const auto error = settle(name, 1)) logging::error(error->localizedDescription());
        }
        if (!waiting_.empty()) return;
        delay_ = kFirstRetry;
        retries_ = 0;
    }

    const std::shared_ptr<queue::SerialQueue> queue_ = std::make_shared<queue::SerialQueue>("notify.post");

    std::mutex mutex_;
    std::map<std::string, std::uint64_t> waiting_;
    std::unique_ptr<queue::Timer> timer_;
    milliseconds delay_ = kFirstRetry;
    unsigned retries_ = 0;
};

}  // namespace

std::optional<value::Error> post(const std::string& name, std::uint64_t times) {
    return Posts::shared().make(name, times);
}

bool settlePosts(milliseconds patience) {
    return Posts::shared().settleAll(patience);
}

}  // namespace notify
