#include <memory>
#include <semaphore>

#include <gtest/gtest.h>

#include "platform/queue/Errands.h"

namespace queue {
namespace {

using Outcome = Errands::Outcome;
using Gate = std::counting_semaphore<64>;

// Errands that block until they are let go.
struct Scene {
    Errands::Owner owner(pid_t pid) const { return {pid, 1}; }

    void block(pid_t pid) {
        errands.run(
            owner(pid),
            [this] {
                started.release();
                letGo.acquire();
            },
            [this](Outcome outcome) { (outcome == Outcome::done ? done : refused).release(); });
    }
    static void await(Gate& gate, int times) {
        for (int i = 0; i < times; ++i) gate.acquire();
    }

    Gate started{0}, letGo{0}, done{0}, refused{0};
    Errands errands{{.ofOneOwner = 2, .waitingOfOwner = 1, .threads = 3, .threadsInAll = 4}};
};

TEST(Errands, RunAFewOfOneOwnerAndRefuseWhoBlocksMostWhereThereAreTooMany) {
    Scene scene;
    for (int i = 0; i < 3; ++i) scene.block(1);
    scene.await(scene.started, 2);
    EXPECT_FALSE(scene.started.try_acquire()) << "a third one of the same owner";
    scene.block(1);
    scene.await(scene.refused, 1);  // too many wait

    scene.block(2);
    scene.await(scene.started, 1);
    EXPECT_FALSE(scene.refused.try_acquire());
    scene.block(3);  // beyond the bound: one of the first owner's is written off
    scene.await(scene.started, 1);
    scene.await(scene.refused, 1);
    scene.block(4);  // no thread can be had any more
    scene.await(scene.refused, 1);
    EXPECT_FALSE(scene.started.try_acquire()) << "the one that is written off counts against its owner";

    scene.letGo.release(5);
    scene.await(scene.started, 1);  // the one that waited
    scene.await(scene.done, 4);
    EXPECT_FALSE(scene.refused.try_acquire() || scene.done.try_acquire()) << "each is told once";
}

TEST(Errands, KeepNothingOfWhatIsOver) {
    const auto kept = std::make_shared<int>(0);
    {
        Scene scene;
        for (int i = 0; i < 64; ++i) {
            scene.errands.run(
                scene.owner(1), [kept] { ++*kept; }, [&](Outcome) { scene.done.release(); });
            scene.done.acquire();
        }
    }
    EXPECT_EQ(*kept, 64);
    EXPECT_EQ(kept.use_count(), 1);
}

}  // namespace
}  // namespace queue
