#include <atomic>

#include "platform/queue/SerialQueue.h"
#include "tests/support/Words.h"

namespace queue {
namespace {

TEST(SerialQueue, NeverOverlapsWhateverWayWorkArrives) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    SerialQueue queue{"test"}, feeder{"feeder"};
    int unguarded = 0;  // the queue's turn is all that protects it
    std::vector<std::thread> threads(kThreads);
    for (std::thread& thread : threads) {
        thread = std::thread{[&] {
            for (int i = 0; i < kRounds; ++i) {
                queue.async([&] { ++unguarded; });
                feeder.async([&] { queue.async([&] { ++unguarded; }); });
                queue.sync([&] { ++unguarded; });
            }
        }};
    }
    for (std::thread& thread : threads) thread.join();
    feeder.sync([] {});
    EXPECT_EQ(queue.sync([&] { return unguarded; }), kThreads * kRounds * 3);
}

TEST(SerialQueue, RunsInTheOrderOfSubmission) {
    SerialQueue queue{"test"};
    std::latch release{1};
    std::string order;
    queue.async([&] { release.wait(); });
    queue.async([&] { order += 'a'; });
    std::thread waiter{[&] {
        queue.async([&] { order += 'b'; });
        queue.sync([&] { order += 'c'; });
        queue.async([&] { order += 'd'; });
    }};
    release.count_down();
    waiter.join();
    EXPECT_EQ(queue.sync([&] { return order; }), "abcd");
}

TEST(SerialQueue, RunsWhatWaitsWhenTheObjectGoesAndLetsGoOfAClosureInItsTurn) {
    std::latch blocked{1}, done{1};
    auto queue = std::make_optional<SerialQueue>("test");
    auto captured = std::make_shared<int>(1);
    const std::weak_ptr<int> watched = captured;
    queue->async([&blocked, captured = std::move(captured)] { blocked.wait(); });
    queue->async([&] {
        EXPECT_TRUE(watched.expired());
        done.count_down();
    });
    queue.reset();
    blocked.count_down();
    done.wait();
}

// The work that a closure leaves behind is its own thread's to do, unless that thread does not come for it.
TEST(SerialQueue, WorkLeftByAClosureThatBlocksIsClaimedByAnotherThread) {
    SerialQueue first{"first"}, second{"second"};
    std::latch done{1};
    bool sawIt = false;
    first.async([&] {
        second.async([&] { done.count_down(); });
        done.wait();
        sawIt = true;
    });
    first.sync([] {});
    EXPECT_TRUE(sawIt);
}

// With every thread of the pool in a closure, a sync() must find a queue that is merely scheduled.
TEST(SerialQueue, SyncNeedsNoFreeThread) {
    std::array<std::optional<SerialQueue>, 16> queues;  // more than threads
    SerialQueue shared{"shared"};
    std::atomic<int> sum = 0;
    for (auto& queue : queues) {
        queue.emplace("worker").async([&] {
            SerialQueue own{"own"};
            own.async([&] { ++sum; });
            own.sync([&] { shared.sync([&] { ++sum; }); });
        });
    }
    for (auto& queue : queues) queue->sync([] {});
    EXPECT_EQ(sum, 2 * queues.size());
}

TEST(SerialQueueDeathTest, NestedSyncOnTheSameQueueNamesIt) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    SerialQueue queue{"serverSync"}, other{"other"};
    EXPECT_DEATH(queue.sync([&] { queue.sync([] {}); }), "serverSync");
    EXPECT_DEATH(queue.sync([&] { other.sync([&] { queue.sync([] {}); }); }), "serverSync");
}

}  // namespace
}  // namespace queue
