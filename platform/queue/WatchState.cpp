#include "platform/queue/WatchState.h"

#include <sys/epoll.h>

#include <cerrno>
#include <utility>

namespace queue {
namespace {

// Room to write is left out until it is asked for: see Watch::awaitWritable().
constexpr std::uint32_t kStanding = EPOLLIN | EPOLLPRI | EPOLLRDHUP | EPOLLET;

}  // namespace

WatchState::WatchState(int fd, int epoll, std::shared_ptr<SerialQueue::State> queue, Watch::Handler handler)
    : fd_{fd}, epoll_{epoll}, queue_{std::move(queue)}, handler_{std::move(handler)} {}

int WatchState::control(int operation, std::uint32_t events) const {
    epoll_event event{};
    event.events = events;
    event.data.u64 = id_;
    return ::epoll_ctl(epoll_, operation, fd_, &event) == 0 ? 0 : errno;
}

int WatchState::start(std::uint64_t id) {
    const std::lock_guard lock{mutex_};
    id_ = id;
    return control(EPOLL_CTL_ADD, kStanding);
}

void WatchState::end() {
    const std::lock_guard lock{mutex_};
    ended_ = true;
    // Nothing can be done about a descriptor that was closed too early; its events ended with it.
    static_cast<void>(control(EPOLL_CTL_DEL, 0));
}

// Under the lock. True when the handler has to be queued for it.
bool WatchState::note(std::uint32_t readiness) {
    if (ended_ || readiness == 0) return false;
    pending_ |= readiness;
    if (queued_) return false;
    queued_ = shared_from_this();
    return true;
}

bool WatchState::observe(std::uint32_t readiness, SerialQueue::State::Claim claim) {
    {
        const std::lock_guard lock{mutex_};
        if (!awaitsWritable_) readiness &= ~std::uint32_t{Watch::writable};
        if (!ended_ && (readiness & Watch::writable) != 0) {
            awaitsWritable_ = false;
            static_cast<void>(control(EPOLL_CTL_MOD, kStanding));
        }
        if (!note(readiness)) return false;
    }
    return queue_->append(*this, claim);
}

void WatchState::again(std::uint32_t readiness) {
    {
        const std::lock_guard lock{mutex_};
        if (!note(readiness)) return;
    }
    queue_->submit(*this);
}

void WatchState::setReading(bool reading) {
    {
        const std::lock_guard lock{mutex_};
        if (std::exchange(reading_, reading) == reading || !reading) return;
        if (!note(std::exchange(withheld_, 0) | Watch::readable)) return;
    }
    queue_->submit(*this);
}

void WatchState::awaitWritable() {
    const std::lock_guard lock{mutex_};
    if (ended_ || std::exchange(awaitsWritable_, true)) return;
    static_cast<void>(control(EPOLL_CTL_MOD, kStanding | EPOLLOUT));  // looks at once whether there is room
}

void WatchState::run() noexcept {
    std::shared_ptr<WatchState> self;
    std::uint32_t readiness = 0;
    {
        const std::lock_guard lock{mutex_};
        self = std::move(queued_);
        readiness = std::exchange(pending_, 0);
        if (!reading_ && (readiness & Watch::readable) != 0) {
            constexpr std::uint32_t kHeldBack = Watch::readable | Watch::hangup;
            withheld_ |= readiness & kHeldBack;
            readiness &= ~kHeldBack;
        }
        if (ended_) return;
    }
    if (readiness != 0) handler_(readiness);
}

}  // namespace queue
