#include "platform/memory/GiveBack.h"

#include <malloc.h>

#include <chrono>
#include <memory>
#include <mutex>

#include "platform/queue/Reactor.h"

namespace memory {

namespace {

// Long enough that who is asked for large things all the time seldom has to fetch memory again.
constexpr std::chrono::seconds kDelay{2};

struct Giver {
    const std::shared_ptr<queue::SerialQueue> queue =
        std::make_shared<queue::SerialQueue>("memory", queue::QualityOfService::background);
    std::mutex mutex;
    std::unique_ptr<queue::Timer> timer;  // guarded by the mutex

    void give() {
        {
            const std::lock_guard lock{mutex};
            timer.reset();
        }
        ::malloc_trim(0);
    }
};

}  // namespace

void giveBackSoon() {
    static Giver& giver = *new Giver;  // its timer may fire while static objects go
    const std::lock_guard lock{giver.mutex};
    if (!giver.timer) giver.timer = queue::after(kDelay, giver.queue, [] { giver.give(); });
}

}  // namespace memory
