#include "platform/queue/Reactor.h"
#include "tests/support/Words.h"

namespace queue {
namespace {

using namespace std::chrono_literals;

class Step final : public Deferred {
public:
    void runDeferred() noexcept override { done.count_down(); }
    std::latch done{1};
};

TEST(Defer, RefusesWhereNothingIsToComeAnyway) {
    EXPECT_FALSE(defer(std::make_shared<Step>())) << "not a thread of the pool's";
    SerialQueue queue{"test"};
    std::promise<bool> deferred;
    queue.async([&] { deferred.set_value(defer(std::make_shared<Step>())); });
    EXPECT_FALSE(deferred.get_future().get()) << "nothing else waits for the thread";
}

TEST(Defer, ComesBehindWhatWaitsAndIsNotHeldUpByIt) {
    bool wasDeferred = false;
    for (int tries = 0; tries < 100 && !wasDeferred; ++tries) {
        const auto step = std::make_shared<Step>();
        SerialQueue first{"first"};
        SerialQueue second{"second"};
        bool cameBefore = false;
        std::latch worked{1};  // on a thread of the pool's: to wait with sync() would be to lend it this one
        first.async([&] {
            second.async([&] {
                cameBefore = step->done.try_wait();
                step->done.wait();  // for ever, if nobody else comes for it
            });
            wasDeferred = defer(step);
            if (!wasDeferred) step->runDeferred();  // another thread was free for the second queue
            worked.count_down();
        });
        worked.wait();
        second.sync([] {});
        EXPECT_FALSE(wasDeferred && cameBefore);
    }
    EXPECT_TRUE(wasDeferred);
}

}  // namespace
}  // namespace queue
