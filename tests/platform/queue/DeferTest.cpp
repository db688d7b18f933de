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
    bool cameBehind = false;
    for (int tries = 0; tries < 100 && !cameBehind; ++tries) {  // another thread may happen to be free, or be reminded
        const auto step = std::make_shared<Step>();
        SerialQueue first{"first"};
        SerialQueue second{"second"};
        bool wasDeferred = false;
        bool cameBefore = false;
        std::atomic<bool> done = false;
        first.async([&] {
            std::this_thread::sleep_for(5ms);  // until the others have settled
            second.async([&] {
                cameBefore = step->done.try_wait();
                step->done.wait();  // for ever, if nobody else comes for it
            });
            wasDeferred = defer(step);
            if (!wasDeferred) step->runDeferred();
            done = true;
            wake();
        });
        runUntil([&] { return done.load(); });  // with this thread one stands by
        second.sync([] {});
        cameBehind = wasDeferred && !cameBefore;
    }
    EXPECT_TRUE(cameBehind);
}

// By then another thread may poll, and see nothing of it.
TEST(Defer, IsNotHeldUpWhereAnotherThreadPolls) {
    const auto step = std::make_shared<Step>();
    SerialQueue queue{"test"};
    std::promise<bool> deferred;
    std::atomic<bool> done = false;
    bool cameInTime = false;
    queue.async([&] {
        std::this_thread::sleep_for(50ms);  // long enough for another thread to take over, and to find nothing
        queue.async([&] {
            for (int i = 0; i < 500 && !(cameInTime = step->done.try_wait()); ++i) std::this_thread::sleep_for(10ms);
            done = true;
            wake();
        });
        deferred.set_value(defer(step));
    });
    runUntil([&] { return done.load(); });  // a third thread
    EXPECT_TRUE(deferred.get_future().get());
    EXPECT_TRUE(cameInTime);
}

}  // namespace
}  // namespace queue
