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

TEST(Watch, CallsAgainAHandlerThatStoppedEarlyAndReportsTheHangup) {
    Pair pair;
    const auto queue = makeQueue();
    std::string got;
    bool hungUp = false;
    std::latch all{1};
    std::unique_ptr<Watch> watched;
    queue->sync([&] {
        watched = watch(pair.ours.get(), queue, [&](std::uint32_t readiness) {
            EXPECT_TRUE(queue->isCurrent());
            hungUp = hungUp || (readiness & Watch::hangup) != 0;
            const std::string byte = pair.read(1);
            got += byte;
            if (!byte.empty()) return watched->again(Watch::readable);
            if (got == "four" && hungUp) all.count_down();
        });
        pair.send("four");
        pair.theirs.reset();
    });
    all.wait();
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

// Comes back once a watch and a timer of their own have been served.
void awaitService() {
    const Pair pair;
    const auto queue = makeQueue();
    std::latch both{2};
    const auto watched = watch(pair.ours.get(), queue, [&](std::uint32_t) {
        if (!pair.read(1).empty()) both.count_down();
    });
    const auto timer = after(1ms, queue, [&] { both.count_down(); });
    pair.send("x");
    both.wait();
    queue->sync([] {});
}

TEST(Reactor, IsNotStoppedByABlockedWorkerNorStarvedByQueuesThatNeverRunDry) {
    SerialQueue blocked{"blocked"};
    std::latch started{1}, release{1};
    blocked.async([&] {
        started.count_down();
        release.wait();
    });
    started.wait();
    awaitService();
    release.count_down();
    blocked.sync([] {});

    std::atomic<bool> stop = false;
    std::vector<std::shared_ptr<SerialQueue>> busy(16);  // more than threads
    const std::function<void(SerialQueue&)> runOn = [&](SerialQueue& queue) {
        queue.async([&] {
            if (!stop) runOn(queue);
        });
    };
    for (auto& queue : busy) runOn(*(queue = makeQueue()));
    awaitService();
    stop = true;
    for (const auto& queue : busy) queue->sync([] {});  // now none will be added,
    for (const auto& queue : busy) queue->sync([] {});  // and now none is left
}

TEST(Timer, FiresInTheOrderOfDeadlinesNeverEarlyAndNotOnceItIsGone) {
    const auto queue = makeQueue();
    const auto start = std::chrono::steady_clock::now();
    std::string order;
    std::latch fired{4};
    std::vector<std::unique_ptr<Timer>> timers;
    queue->sync([&] {
        std::vector<std::unique_ptr<Timer>> gone(100'000);
        for (auto& timer : gone) timer = after(1ms, queue, [&] { order += 'x'; });
        const std::pair<std::chrono::milliseconds, char> rows[] = {{30ms, 'd'}, {10ms, 'b'}, {10ms, 'c'}, {0ms, 'a'}};
        for (const auto& row : rows) {
            timers.push_back(after(row.first, queue, [&, row] {
                EXPECT_GE(std::chrono::steady_clock::now() - start, row.first);
                order += row.second;
                fired.count_down();
            }));
        }
    });
    fired.wait();
    EXPECT_EQ(queue->sync([&] { return order; }), "abcd");
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

}  // namespace
}  // namespace queue
