#include <sys/file.h>

#include "platform/assertions/Assertions.h"
#include "platform/file/UniqueFd.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Mounts.h"
#include "tests/support/Words.h"

namespace assertions {
namespace {

const std::string kIdentifier = "org.example/share";
const std::string kDirectory = "run/assertions/org.example%2Fshare/";

// A word for each instance that is seen.
std::string seen(const std::string& identifier = kIdentifier) {
    std::string text;
    for (const Dictionary& instance : busyInstances({&identifier, 1})) {
        text += instance == Dictionary{{kBundleIdentifierKey, identifier}} ? "busy " : "incomplete ";
    }
    return text;
}
std::string seenByAnother() {
    return support::inChildProcess([] { return seen(); });
}

class Assertions : public testing::Test {
protected:
    std::string path(const std::string& name) const { return root_ / (kDirectory + name); }

    const support::PrivateRoot root_;
    const std::string own_ = path(std::to_string(::getpid()));
};

TEST_F(Assertions, CountUntilTheLastOfAProcessIsGivenBack) {
    for (const std::string& none : {""s, std::string(kLongestIdentifier + 1, 'x'), "\xFF"s}) {
        EXPECT_FALSE(Assertion::take(none)) << none.size();
    }
    auto first = Assertion::take(kIdentifier);
    ASSERT_TRUE(first) << whyNot(first);
    {
        const auto second = Assertion::take(kIdentifier);
        EXPECT_EQ(seen(), "busy ");  // and looking does not lose it
        EXPECT_EQ(seen("org.example"), "");
        fs::remove(own_);
        EXPECT_EQ(seenByAnother(), "");
        const auto third = Assertion::take(kIdentifier);  // makes up for the file that was removed
        EXPECT_EQ(seenByAnother(), "busy ");
    }
    EXPECT_EQ(support::inChildProcess([&] {
                  { const Assertion theirs = *std::move(first); }
                  const auto own = Assertion::take(kIdentifier);
                  return seen();
              }),
              "busy busy ")
        << "a child has its own beside the parent's";
    EXPECT_EQ(seenByAnother(), "busy ") << "what a child gives back is not its parent's";
    { const Assertion last = *std::move(first); }
    EXPECT_EQ(seen(), "");
    EXPECT_TRUE(fs::is_empty(fs::path{path("")}));
}

TEST_F(Assertions, EndWithTheirProcessEvenIfAChildOfItLivesOn) {
    const pid_t busy = ::fork();
    ASSERT_GE(busy, 0);
    if (busy == 0) {
        ::setpgid(0, 0);
        const auto assertion = Assertion::take(kIdentifier);  // NOLINT(*-DeadStores): it lasts as long as it lives
        const pid_t child = seenByAnother() == "busy " ? ::fork() : -1;
        if (child == 0) ::pause();
        ::_exit(child > 0 ? 0 : 1);
    }
    int status = -1;
    ::waitpid(busy, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(seen(), "");
    EXPECT_EQ(::kill(-busy, SIGKILL), 0) << "the child lived on";
}

TEST_F(Assertions, WhatIsNoneNeitherCountsNorBlocks) {
    for (const char* name : {"1", "2", "readme"}) root_.write(kDirectory + name, kIdentifier);
    fs::create_directories(path("3/4"));
    ASSERT_EQ(::mkfifo(path("5").c_str(), 0600), 0);
    fs::create_symlink("readme", path("6"));
    const file::UniqueFd openFile{::open(path("1").c_str(), O_RDWR | O_CLOEXEC)};
    struct flock whole {};
    whole.l_type = F_WRLCK;
    ASSERT_EQ(::fcntl(openFile.get(), F_OFD_SETLK, &whole), 0);
    const file::UniqueFd flocked{::open(path("2").c_str(), O_RDWR | O_CLOEXEC)};
    ASSERT_EQ(::flock(flocked.get(), LOCK_EX), 0);
    EXPECT_EQ(seen(), "");
    EXPECT_TRUE(fs::exists(path("1"))) << "somebody may be removing it";
    EXPECT_FALSE(fs::exists(path("2"))) << "swept";
    EXPECT_TRUE(fs::exists(path("readme")));

    // In the way of what this process takes, too.
    fs::create_directories(own_);
    ASSERT_EQ(::mkfifo((own_ + "-1").c_str(), 0600), 0);
    const auto assertion = Assertion::take(kIdentifier);
    ASSERT_TRUE(assertion) << whyNot(assertion);
    EXPECT_EQ(seenByAnother(), "busy ");
}

TEST_F(Assertions, AreNotTakenOnAFullDiskNorFillIt) {
    if (!support::enterMountNamespace()) GTEST_SKIP() << "no mounts here";
    fs::create_directories(root_ / "run");
    const auto mount = support::Mount::small(root_ / "run", "64k");
    root_.write(kDirectory + "1", "");
    mount.fill();
    const auto assertion = Assertion::take(kIdentifier);
    ASSERT_FALSE(assertion);
    EXPECT_EQ(assertion.error().code, ENOSPC);
    EXPECT_LE(std::distance(fs::directory_iterator{path("")}, {}), 2);
}

TEST_F(Assertions, AreNeverSweptByWhoLooksWhileTheyAreTaken) {
    const pid_t looking = ::fork();
    ASSERT_GE(looking, 0);
    if (looking == 0) {
        for (;;) seen();
    }
    int lost = 0;
    for (int i = 0; i < 1000; ++i) {
        root_.write(own_.substr(root_.path().size()), "stale");
        const auto assertion = Assertion::take(kIdentifier);
        if (!assertion || fs::is_empty(fs::path{path("")})) ++lost;
    }
    ::kill(looking, SIGKILL);
    ::waitpid(looking, nullptr, 0);
    EXPECT_EQ(lost, 0);
}

}  // namespace
}  // namespace assertions
