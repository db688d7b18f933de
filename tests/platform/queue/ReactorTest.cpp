#include <atomic>
#include <semaphore>

#include "platform/file/UniqueFd.h"
#include "platform/queue/Reactor.h"
#include "tests/support/Words.h"

namespace queue {
namespace {

using namespace std::chrono_literals;

struct Pair {
    Pair() {
        std::array<int, 2> ends{};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()), 0);
        ours = file::UniqueFd{ends[0]};
        theirs = file::UniqueFd{ends[1]};
    }
    void send(std::string_view bytes) const {
        EXPECT_EQ(::write(theirs.get(), bytes.data(), bytes.size()), bytes.size());
    }
    std::string read(std::size_t most) const {
        std::string bytes(most, '\0');
        const ssize_t count = ::read(ours.get(), bytes.data(), bytes.size());
        bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return bytes;
    }
    file::UniqueFd ours, theirs;
};

std::shared_ptr<SerialQueue> makeQueue() {
    return std::make_shared<SerialQueue>("test");
}

TEST(Watch, ReportsWhatArrivesAndTheHangupInTheQueuesTurn) {
    Pair pair;
    const auto queue = makeQueue();
    std::string got;
    std::counting_semaphore<> hungUp{0};
    const auto watched = watch(pair.ours.get(), queue, [&](std::uint32_t readiness) {
        EXPECT_TRUE(queue->isCurrent());
        for (std::string bytes = pair.read(2); !bytes.empty(); bytes = pair.read(2)) got += bytes;
        if ((readiness & Watch::hangup) != 0) hungUp.release();
    });
    pair.send("hello");
    pair.theirs.reset();
    hungUp.acquire();
    EXPECT_EQ(got, "hello");
}

TEST(Watch, CallsAgainAHandlerThatStoppedEarly) {
    Pair pair;
    std::string got;
    std::counting_semaphore<> all{0};
    std::unique_ptr<Watch> watched;
    const auto queue = makeQueue();
    queue->sync([&] {
        watched = watch(pair.ours.get(), queue, [&](std::uint32_t) {
            got += pair.read(1);
            if (got.size() == 4) return all.release();
            watched->again(Watch::readable);
        });
        pair.send("four");
    });
    all.acquire();
    EXPECT_EQ(got, "four");
}

TEST(Watch, HoldsBackReadinessWhileReadingIsSuspended) {
    Pair pair;
    const auto queue = makeQueue();
    std::vector<std::uint32_t> reports;
    std::counting_semaphore<> reported{0};
    const auto watched = watch(pair.ours.get(), queue, [&](std::uint32_t readiness) {
        reports.push_back(readiness);
        reported.release();
    });
    watched->setReading(false);
    pair.send("x");
    pair.theirs.reset();
    watched->awaitWritable();  // an event that is not held back shows that the others were
    reported.acquire();
    EXPECT_EQ(queue->sync([&] { return std::exchange(reports, {}); }), std::vector<std::uint32_t>{Watch::writable});
    watched->setReading(true);
    reported.acquire();
    EXPECT_THAT(queue->sync([&] { return reports; }), testing::Each(Watch::readable | Watch::hangup));
    EXPECT_EQ(pair.read(9), "x");
}

TEST(Watch, ReportsRoomToWriteOnceAndOnlyWhenAsked) {
    Pair pair;
    const auto queue = makeQueue();
    std::atomic<int> writable = 0;
    std::counting_semaphore<> reported{0};
    const auto watched = watch(pair.ours.get(), queue, [&](std::uint32_t readiness) {
        if ((readiness & Watch::writable) != 0) ++writable;
        if (!pair.read(1).empty() || (readiness & Watch::writable) != 0) reported.release();
    });
    pair.send("x");
    reported.acquire();
    EXPECT_EQ(writable, 0);

    const std::string block(4096, 'x');
    while (::write(pair.ours.get(), block.data(), block.size()) > 0) {
    }
    ASSERT_EQ(errno, EAGAIN);
    watched->awaitWritable();
    std::string drained(1 << 20, '\0');
    while (::read(pair.theirs.get(), drained.data(), drained.size()) > 0) {
    }
    reported.acquire();
    EXPECT_EQ(writable, 1);
}

TEST(Watch, RefusesWhatCannotBeWatched) {
    const file::UniqueFd regular{::open("/proc/self/exe", O_RDONLY | O_CLOEXEC)};
    EXPECT_EQ(watch(regular.get(), makeQueue(), [](std::uint32_t) {}), nullptr);
    EXPECT_EQ(errno, EPERM);
}

// The handler's captures are freed with the watch, so a sanitizer sees any call that comes too late.
TEST(Watch, CanGoFromAnyThreadWhileEventsArrive) {
    const auto queue = makeQueue();
    for (int round = 0; round < 300; ++round) {
        Pair pair;
        std::atomic<bool> stop = false;
        auto calls = std::make_unique<int>(0);
        auto watched = watch(pair.ours.get(), queue, [&pair, calls = calls.get()](std::uint32_t) {
            ++*calls;
            pair.read(1);
        });
        std::thread peer{[&] {
            while (!stop) ::send(pair.theirs.get(), "x", 1, MSG_DONTWAIT | MSG_NOSIGNAL);
        }};
        if (round % 2 == 0) {
            queue->sync([&] { watched.reset(); });
        } else {
            watched.reset();
            queue->sync([] {});
        }
        calls.reset();  // no handler starts any more, and none runs
        stop = true;
        peer.join();
    }
}

TEST(Reactor, IsNotStoppedByABlockedWorker) {
    Pair pair;
    const auto blocked = makeQueue();
    std::latch started{1};
    std::latch release{1};
    blocked->async([&] {
        started.count_down();
        release.wait();
    });
    started.wait();
    std::latch both{2};
    const auto queue = makeQueue();
    const auto watched = watch(pair.ours.get(), queue, [&](std::uint32_t) {
        if (!pair.read(1).empty()) both.count_down();
    });
    const auto timer = after(1ms, queue, [&] { both.count_down(); });
    pair.send("x");
    both.wait();
    release.count_down();
    blocked->sync([] {});
}

// More queues than threads, each with something to do at all times.
TEST(Reactor, IsNotStarvedByQueuesThatNeverRunDry) {
    std::atomic<bool> stop = false;
    std::vector<std::shared_ptr<SerialQueue>> busy(16);
    const std::function<void(SerialQueue&)> runOn = [&](SerialQueue& queue) {
        queue.async([&] {
            if (!stop) runOn(queue);
        });
    };
    for (auto& queue : busy) {
        queue = makeQueue();
        runOn(*queue);
    }
    Pair pair;
    std::latch read{1};
    const auto watched = watch(pair.ours.get(), makeQueue(), [&](std::uint32_t) {
        if (!pair.read(1).empty()) read.count_down();
    });
    pair.send("x");
    read.wait();
    stop = true;
    for (const auto& queue : busy) queue->sync([] {});  // now none will be added,
    for (const auto& queue : busy) queue->sync([] {});  // and now none is left
}

TEST(Timer, FiresInTheOrderOfDeadlinesAndNeverEarly) {
    const auto queue = makeQueue();
    const auto start = std::chrono::steady_clock::now();
    std::string order;
    std::latch fired{4};
    std::vector<std::unique_ptr<Timer>> timers;
    const auto add = [&](std::chrono::milliseconds delay, char name) {
        timers.push_back(after(delay, queue, [&, delay, name] {
            EXPECT_GE(std::chrono::steady_clock::now() - start, delay);
            order += name;
            fired.count_down();
        }));
    };
    add(30ms, 'd');
    add(10ms, 'b');
    add(10ms, 'c');
    add(0ms, 'a');
    fired.wait();
    EXPECT_EQ(queue->sync([&] { return order; }), "abcd");
}

TEST(Timer, DoesNotFireOnceItIsGone) {
    const auto queue = makeQueue();
    bool fired = false;
    std::latch later{1};
    std::unique_ptr<Timer> last;
    queue->sync([&] {
        last = after(20ms, queue, [&] { later.count_down(); });
        std::vector<std::unique_ptr<Timer>> many(100'000);
        for (auto& timer : many) timer = after(1ms, queue, [&] { fired = true; });
    });
    later.wait();
    EXPECT_FALSE(queue->sync([&] { return fired; }));
}

TEST(RunUntil, RunsTheHandlerOnTheLentThreadOrHearsOfItsEnd) {
    for (int round = 0; round < 500; ++round) {
        Pair pair;
        const auto queue = makeQueue();
        std::atomic<bool> answered = false;
        const auto watched = watch(pair.ours.get(), queue, [&](std::uint32_t) {
            answered = true;
            wake();
        });
        pair.send("x");
        runUntil([&] { return answered.load(); });
    }
}

TEST(RunUntil, IsWokenByAThreadThatIsNotThePools) {
    std::atomic<int> ended = 0;
    std::atomic<bool> done = false;
    std::vector<std::thread> lenders(3);
    for (std::thread& lender : lenders) {
        lender = std::thread{[&] {
            runUntil([&] { return done.load(); });
            ++ended;
        }};
    }
    wake();
    done = true;
    wake();
    for (std::thread& lender : lenders) lender.join();
    EXPECT_EQ(ended, 3);
}

}  // namespace
}  // namespace queue
