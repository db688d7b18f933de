#include <sys/file.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>

#include "platform/file/UniqueFd.h"
#include "platform/notify/Notify.h"
#include "tests/support/Words.h"

namespace notify {
namespace {

using Clock = std::chrono::steady_clock;

// Adds up what an observer is told.
class Tally {
public:
    explicit Tally(const std::string& name)
        : observer_{observe(name, queue_, [this](std::uint64_t posts) { add(posts); })} {}
    ~Tally() {
        observer_.reset();
        queue_->sync([] {});  // a handler that runs right now still needs this
    }

    // Waits until at least that many were told, and answers how many were.
    std::uint64_t waitFor(std::uint64_t posts) {
        std::unique_lock lock{mutex_};
        changed_.wait_for(lock, std::chrono::seconds{20}, [&] { return total_ >= posts; });
        return total_;
    }

    bool observes() const { return observer_ != nullptr; }

private:
    void add(std::uint64_t posts) {
        EXPECT_GT(posts, 0U);
        const std::lock_guard lock{mutex_};
        total_ += posts;
        changed_.notify_all();
    }

    const std::shared_ptr<queue::SerialQueue> queue_ = std::make_shared<queue::SerialQueue>("test");
    std::mutex mutex_;
    std::condition_variable changed_;
    std::uint64_t total_ = 0;
    std::unique_ptr<Observer> observer_;
};

class Notify : public testing::Test {
protected:
    const support::PrivateRoot root;
};

TEST_F(Notify, LosesNoPostOfManyProcesses) {
    constexpr std::uint64_t kProcesses = 4;
    constexpr std::uint64_t kPosts = 500;
    ASSERT_FALSE(post("n"));  // before the observer: none of its business
    Tally one{"n"};
    Tally other{"n"};
    Tally stranger{"n2"};
    for (std::uint64_t i = 0; i < kProcesses; ++i) {
        if (fork() != 0) continue;
        for (std::uint64_t j = 0; j < kPosts; ++j) {
            if (post("n")) _exit(1);
        }
        _exit(0);
    }
    for (int status = 0; wait(&status) > 0;) EXPECT_EQ(status, 0);
    EXPECT_EQ(one.waitFor(kProcesses * kPosts), kProcesses * kPosts);
    EXPECT_EQ(other.waitFor(kProcesses * kPosts), kProcesses * kPosts);
    ASSERT_FALSE(post("n2"));
    EXPECT_EQ(stranger.waitFor(1), 1U);
}

TEST_F(Notify, SurvivesWhateverHappensToTheFile) {
    Tally tally{"../n"};
    const std::string file = fs::directory_iterator {
        root / "run/notify"
        } -> path();
    const struct {
        const char* name;
        std::function<void()> happens;
    } rows[] = {
        {"nothing", [] {}},
        {"deleted", [&] { fs::remove(file); }},
        {"replaced", [&] { root.write("other", "00000000000000000000\n"), fs::rename(root / "other", file); }},
        {"emptied", [&] { fs::resize_file(file, 0); }},
        {"spoilt", [&] { fs::resize_file(file, 5); }},
        {"deleted with its directory", [&] { fs::remove_all(root / "run/notify"); }},
        {"moved with its directory", [&] { fs::rename(root / "run/notify", root / "run/gone"); }},
    };
    std::uint64_t posts = 0;
    for (const auto& row : rows) {
        row.happens();
        ASSERT_FALSE(post("../n")) << row.name;
        EXPECT_GE(tally.waitFor(posts + 1), posts + 1) << row.name;
        ASSERT_FALSE(post("../n")) << row.name;
        posts = tally.waitFor(posts + 2);
    }
    EXPECT_EQ(posts, 2 * std::size(rows));
}

TEST_F(Notify, TellsNothingAfterTheObserverIsGone) {
    const auto queue = std::make_shared<queue::SerialQueue>("test");
    bool told = false;
    auto observer = observe("n", queue, [&](std::uint64_t) { told = true; });
    ASSERT_NE(observer, nullptr);
    queue->sync([&] {
        ASSERT_FALSE(post("n"));
        observer.reset();
    });
    Tally tally{"n"};
    ASSERT_FALSE(post("n"));
    EXPECT_EQ(tally.waitFor(1), 1U);
    queue->sync([&] { EXPECT_FALSE(told); });
}

TEST_F(Notify, NeverWaitsForWhoSpoilsTheFile) {
    ASSERT_FALSE(post("locked"));
    const file::UniqueFd counter{open((root / "run/notify/locked").c_str(), O_RDWR)};
    ASSERT_EQ(flock(counter.get(), LOCK_EX), 0);
    Tally tally{"locked"};
    const auto start = Clock::now();
    for (int i = 0; i < 100; ++i) EXPECT_FALSE(post("locked"));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds{1}) << "the first waits a little, the others not at all";
    ASSERT_EQ(flock(counter.get(), LOCK_UN), 0);
    EXPECT_EQ(tally.waitFor(100), 100U) << "nor is any lost";

    ASSERT_EQ(mkfifo((root / "run/notify/pipe").c_str(), 0600), 0);
    ASSERT_EQ(symlink("/dev/zero", (root / "run/notify/link").c_str()), 0);
    ASSERT_EQ(mkdir((root / "run/notify/directory").c_str(), 0700), 0);
    for (const char* name : {"pipe", "link", "directory"}) {
        EXPECT_TRUE(post(name)) << name;
        EXPECT_FALSE(Tally{name}.observes()) << name;
    }
}

}  // namespace
}  // namespace notify
