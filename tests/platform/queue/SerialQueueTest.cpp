#include <atomic>

#include "platform/queue/SerialQueue.h"
#include "tests/support/Words.h"

namespace queue {
namespace {

TEST(SerialQueue, NeverOverlapsWhateverWayWorkArrives) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    SerialQueue queue{"test"};
    SerialQueue feeder{"feeder"};
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

TEST(SerialQueue, SyncOfTheSameThreadsWaitInOrder) {
    SerialQueue queue{"test"};
    std::latch started{1};
    std::latch release{1};
    queue.async([&] {
        started.count_down();
        release.wait();
    });
    started.wait();
    std::string order;
    queue.async([&] { order += 'a'; });
    std::thread waiter{[&] {
        queue.async([&] { order += 'b'; });
        queue.sync([&] { order += 'c'; });
        queue.async([&] { order += 'd'; });
        release.wait();
    }};
    release.count_down();
    waiter.join();
    queue.sync([&] { order += 'e'; });
    EXPECT_EQ(order, "abcde");
}

TEST(SerialQueue, SyncGivesBackTheResultOrTheException) {
    SerialQueue queue{"test"};
    EXPECT_EQ(*queue.sync([] { return std::make_unique<int>(7); }), 7);
    EXPECT_THROW(queue.sync([] { throw std::runtime_error{"out"}; }), std::runtime_error);
    EXPECT_EQ(queue.sync([] { return 1; }), 1) << "the turn is given back";
}

TEST(SerialQueue, KnowsWhichQueuesTheCallerIsInside) {
    SerialQueue outer{"outer"};
    SerialQueue inner{"inner"};
    outer.async([&] {
        EXPECT_TRUE(outer.isCurrent());
        inner.sync([&] { EXPECT_TRUE(outer.isCurrent() && inner.isCurrent()); });
        EXPECT_FALSE(inner.isCurrent());
    });
    outer.sync([&] { EXPECT_TRUE(outer.isCurrent() && !inner.isCurrent()); });
    EXPECT_FALSE(outer.isCurrent());
}

TEST(SerialQueue, RunsWhatWaitsWhenTheObjectGoes) {
    std::latch blocked{1};
    std::latch done{2};
    auto queue = std::make_optional<SerialQueue>("test");
    queue->async([&] { blocked.wait(); });
    queue->async([&] { done.count_down(); });
    queue->async([&] { done.count_down(); });
    queue.reset();
    blocked.count_down();
    done.wait();
}

TEST(SerialQueue, LetsGoOfAClosureInItsTurn) {
    SerialQueue queue{"test"};
    auto captured = std::make_shared<int>(1);
    const std::weak_ptr<int> watched = captured;
    queue.async([captured = std::move(captured)] {});
    EXPECT_TRUE(queue.sync([&] { return watched.expired(); }));
}

// The work that a closure leaves behind is its own thread's to do, unless that thread does not come for it.
TEST(SerialQueue, WorkLeftByAClosureThatBlocksIsClaimedByAnotherThread) {
    SerialQueue first{"first"};
    SerialQueue second{"second"};
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
    std::vector<std::unique_ptr<SerialQueue>> queues;
    constexpr int kMoreThanThePool = 16;
    std::atomic<int> sum = 0;
    SerialQueue shared{"shared"};
    for (int i = 0; i < kMoreThanThePool; ++i) {
        queues.push_back(std::make_unique<SerialQueue>("worker"));
        queues.back()->async([&] {
            SerialQueue own{"own"};
            own.async([&] { ++sum; });
            own.sync([&] { shared.sync([&] { ++sum; }); });
        });
    }
    for (const auto& queue : queues) queue->sync([] {});
    EXPECT_EQ(sum, 2 * kMoreThanThePool);
}

TEST(SerialQueueDeathTest, NestedSyncOnTheSameQueueNamesIt) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    SerialQueue queue{"serverSync"};
    SerialQueue other{"other"};
    EXPECT_DEATH(queue.sync([&] { queue.sync([] {}); }), "serverSync");
    EXPECT_DEATH(queue.sync([&] { other.sync([&] { queue.sync([] {}); }); }), "serverSync");
}

}  // namespace
}  // namespace queue
