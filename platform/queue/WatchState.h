#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "platform/queue/Reactor.h"
#include "platform/queue/State.h"

namespace queue {

// What is behind a Watch: the readiness that its handler has not seen yet, as an item of its queue. Shared by the
// Watch, the table of watches and, while it is queued, itself; so an event that is being taken when the Watch goes
// finds it ended, not gone.
class WatchState final : public Item, public std::enable_shared_from_this<WatchState> {
public:
    WatchState(int fd, int epoll, std::shared_ptr<SerialQueue::State> queue, Watch::Handler handler);

    // Starts with the id that events shall carry; an errno on refusal.
    [[nodiscard]] int start(std::uint64_t id);
    void end();

    // What the kernel says. True when that took the idle queue out of idleness for the claimant given.
    [[nodiscard]] bool observe(std::uint32_t readiness, SerialQueue::State::Claim claim);

    // What the owner says.
    void again(std::uint32_t readiness);
    void setReading(bool reading);
    void awaitWritable();

    const std::shared_ptr<SerialQueue::State>& queue() const { return queue_; }

    void run() noexcept override;

private:
    [[nodiscard]] int control(int operation, std::uint32_t events) const;
    [[nodiscard]] bool note(std::uint32_t readiness);

    const int fd_;
    const int epoll_;
    const std::shared_ptr<SerialQueue::State> queue_;
    const Watch::Handler handler_;

    std::mutex mutex_;  // guards what follows; no other lock is taken under it
    std::uint64_t id_ = 0;
    std::uint32_t pending_ = 0;   // for the handler's next run
    std::uint32_t withheld_ = 0;  // until reading is resumed
    bool reading_ = true;
    bool awaitsWritable_ = false;
    bool ended_ = false;
    std::shared_ptr<WatchState> queued_;  // itself while it is an item of the queue
};

}  // namespace queue
