#include "platform/queue/Reactor.h"

#include <cerrno>
#include <utility>

#include "platform/queue/Pool.h"

namespace queue {
namespace {

class RegisteredWatch final : public Watch {
public:
    RegisteredWatch(std::shared_ptr<WatchState> state, std::uint64_t id) : state_{std::move(state)}, id_{id} {}
    RegisteredWatch(const RegisteredWatch&) = delete;
    RegisteredWatch& operator=(const RegisteredWatch&) = delete;
    ~RegisteredWatch() override {
        state_->end();
        Pool::shared().watches().remove(id_);
    }

    void setReading(bool reading) override { state_->setReading(reading); }
    void awaitWritable() override { state_->awaitWritable(); }
    void again(std::uint32_t readiness) override { state_->again(readiness); }

private:
    const std::shared_ptr<WatchState> state_;
    const std::uint64_t id_;
};

class RegisteredTimer final : public Timer {
public:
    explicit RegisteredTimer(std::shared_ptr<TimerState> state) : state_{std::move(state)} {}
    RegisteredTimer(const RegisteredTimer&) = delete;
    RegisteredTimer& operator=(const RegisteredTimer&) = delete;
    ~RegisteredTimer() override {
        state_->cancel();
        Pool::shared().timers().remove(*state_);
    }

private:
    const std::shared_ptr<TimerState> state_;
};

}  // namespace

std::unique_ptr<Watch> watch(int fd, const std::shared_ptr<SerialQueue>& queue, Watch::Handler handler) {
    Pool& pool = Pool::shared();
    auto state = std::make_shared<WatchState>(fd, pool.epoll(), SerialQueue::State::of(*queue), std::move(handler));
    const std::uint64_t id = pool.watches().add(state);
    if (const int refusal = state->start(id); refusal != 0) {
        pool.watches().remove(id);
        errno = refusal;
        return nullptr;
    }
    return std::make_unique<RegisteredWatch>(std::move(state), id);
}

std::unique_ptr<Timer> after(std::chrono::milliseconds delay, const std::shared_ptr<SerialQueue>& queue,
                             SerialQueue::Work work) {
    auto state = std::make_shared<TimerState>(SerialQueue::State::of(*queue), std::move(work));
    Pool::shared().timers().add(state, delay);
    return std::make_unique<RegisteredTimer>(std::move(state));
}

bool defer(std::shared_ptr<Deferred> work) {
    return Pool::shared().defer(std::move(work));
}

void runMainLoop() {
    Pool::shared().work();
}

void runUntil(const std::function<bool()>& done) {
    Pool::shared().workUntil(done);
}

void wake() {
    Pool::shared().recall();
}

}  // namespace queue
