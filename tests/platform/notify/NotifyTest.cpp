#include <sys/file.h>

#include <atomic>

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
        : observer_{observe(name, queue_, [this](std::uint64_t posts) { total_ += posts; })} {}
    ~Tally() {
        observer_.reset();
        queue_->sync([] {});  // a handler that runs right now still needs this
    }

    // Waits until at least that many were told, and answers how many were.
    std::uint64_t waitFor(std::uint64_t posts) const {
        const auto deadline = Clock::now() + std::chrono::seconds{20};
        while (total_ < posts && Clock::now() < deadline) ::usleep(100);
        return total_;
    }

private:
    const std::shared_ptr<queue::SerialQueue> queue_ = std::make_shared<queue::SerialQueue>("test");
    std::atomic<std::uint64_t> total_ = 0;
    std::unique_ptr<Observer> observer_;
};

class Notify : public testing::Test {
protected:
    const support::PrivateRoot root;
};

TEST_F(Notify, LosesNoPostOfManyProcesses) {
    constexpr std::uint64_t kProcesses = 4, kPosts = 500;
    ASSERT_FALSE(post("n"));  // before the observer: none of its business
    const Tally one{"n"}, other{"n"}, stranger{"n2"};
    for (std::uint64_t i = 0; i < kProcesses; ++i) {
        if (fork() != 0) continue;
        for (std::uint64_t j = 0; j < kPosts; ++j) {
            if (post("n")) _exit(1);
        }
        _exit(settlePosts(std::chrono::seconds{20}) ? 0 : 1);  // a holder of the lock may have been off the processor
    }
    for (int status = 0; wait(&status) > 0;) EXPECT_EQ(status, 0);
    EXPECT_EQ(one.waitFor(kProcesses * kPosts), kProcesses * kPosts);
    EXPECT_EQ(other.waitFor(kProcesses * kPosts), kProcesses * kPosts);
    ASSERT_FALSE(post("n2"));
    EXPECT_EQ(stranger.waitFor(1), 1U);
}

TEST_F(Notify, SurvivesWhateverHappensToTheFile) {
    const Tally tally{"../n"};
    const std::string directory = root / "run/notify", file = fs::directory_iterator {
        directory
        } -> path();
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"nothing", [] {}},
        {"deleted", [&] { fs::remove(file); }},
        {"replaced", [&] { fs::rename(root.write("other", "00000000000000000000\n"), file); }},
        {"emptied", [&] { fs::resize_file(file, 0); }},
        {"spoilt", [&] { fs::resize_file(file, 5); }},
        {"deleted with its directory", [&] { fs::remove_all(directory); }},
        {"moved with its directory", [&] { fs::rename(directory, root / "run/gone"); }},
    };
    std::uint64_t posts = 0;
    for (const auto& row : rows) {
        row.second();
        for (int i = 0; i < 2; ++i) {
            ASSERT_FALSE(post("../n")) << row.first;
            ++posts;
            EXPECT_EQ(tally.waitFor(posts), posts) << row.first;
        }
    }
}

TEST_F(Notify, NeverWaitsForWhoSpoilsTheFile) {
    ASSERT_FALSE(post("locked"));
    const file::UniqueFd counter{open((root / "run/notify/locked").c_str(), O_RDWR)};
    ASSERT_EQ(flock(counter.get(), LOCK_EX), 0);
    const Tally tally{"locked"};
    const auto start = Clock::now();
    for (int i = 0; i < 100; ++i) EXPECT_FALSE(post("locked"));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds{1}) << "the first waits a little, the others not at all";
    ASSERT_EQ(flock(counter.get(), LOCK_UN), 0);
    EXPECT_EQ(tally.waitFor(100), 100U) << "nor is any lost";

    ASSERT_EQ(mkfifo((root / "run/notify/pipe").c_str(), 0600), 0);
    fs::create_symlink("/dev/zero", root / "run/notify/link");
    for (const char* name : {"pipe", "link"}) {
        EXPECT_TRUE(post(name)) << name;
        EXPECT_EQ(observe(name, std::make_shared<queue::SerialQueue>("none"), {}), nullptr) << name;
    }
}

}  // namespace
}  // namespace notify
