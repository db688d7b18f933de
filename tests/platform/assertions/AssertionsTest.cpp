#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <utility>

#include <gtest/gtest.h>

#include "platform/assertions/Assertions.h"
#include "platform/file/UniqueFd.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Mounts.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/Words.h"

namespace assertions {
namespace {

const std::string kIdentifier = "org.example/share";
const std::string kDirectory = "run/assertions/org.example%2Fshare/";

class Assertions : public testing::Test {
protected:
    std::string path(const std::string& name) const { return root_ / (kDirectory + name); }

    // A word for each instance that is seen.
    static std::string seen(const std::string& identifier = kIdentifier) {
        std::string text;
        for (const Dictionary& instance : busyInstances({&identifier, 1})) {
            text += instance == Dictionary{{kBundleIdentifierKey, identifier}} ? "busy " : "incomplete ";
            EXPECT_LE(instance.size(), 1U);
        }
        return text;
    }
    static std::string seenByAnother() {
        return support::inChildProcess([] { return seen(); });
    }

    const support::PrivateRoot root_;
};

// Locks a whole file for writing, in the way that the command says.
bool lockWhole(int fd, int command) {
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    return ::fcntl(fd, command, &whole) == 0;
}

TEST_F(Assertions, CountUntilTheLastOfAProcessIsGivenBack) {
    for (const std::string& none : {""s, std::string(kLongestIdentifier + 1, 'x'), "\xFF"s}) {
        EXPECT_FALSE(Assertion::take(none)) << none.size();
    }
    EXPECT_EQ(seen(), "");
    auto first = Assertion::take(kIdentifier);
    ASSERT_TRUE(first) << first.error().localizedDescription();
    {
        const auto second = Assertion::take(kIdentifier);
        EXPECT_EQ(seen(), "busy ");  // and looking does not lose it
        EXPECT_EQ(seen("org.example"), "");
        ::unlink(path(std::to_string(::getpid())).c_str());
        EXPECT_EQ(seenByAnother(), "");
        const auto third = Assertion::take(kIdentifier);  // makes up for the file that was removed
        EXPECT_EQ(seenByAnother(), "busy ");
    }
    Assertion moved = *std::move(first);
    EXPECT_EQ(seenByAnother(), "busy ");
    EXPECT_EQ(support::inChildProcess([] {
                  {
                      const auto own = Assertion::take(kIdentifier);
                      if (!own || seen() != "busy busy ") return "a child has its own beside the parent's: " + seen();
                  }
                  return seen();
              }),
              "busy ");
    EXPECT_EQ(seenByAnother(), "busy ") << "what a child gives back is not its parent's";
    { const Assertion last = std::move(moved); }
    EXPECT_EQ(seen(), "");
    EXPECT_TRUE(fs::is_empty(fs::path{path("")}));
}

TEST_F(Assertions, DieWithTheirProcessThoughItsChildLivesOn) {
    std::array<int, 2> told{};
    std::array<int, 2> ended{};  // closed when the grandchild has ended
    ASSERT_EQ(::pipe(told.data()) + ::pipe(ended.data()), 0);
    const pid_t holder = ::fork();
    if (holder == 0) {
        const auto assertion = Assertion::take(kIdentifier);
        const pid_t child = ::fork();
        if (child != 0 && ::write(told[1], &child, sizeof child) != sizeof child) ::_exit(1);
        ::pause();
        ::_exit(0);
    }
    ::close(ended[1]);
    pid_t child = 0;
    ASSERT_EQ(::read(told[0], &child, sizeof child), static_cast<ssize_t>(sizeof child));
    EXPECT_EQ(seen(), "busy ");
    ::kill(holder, SIGKILL);
    ::waitpid(holder, nullptr, 0);
    EXPECT_EQ(::kill(child, 0), 0);
    EXPECT_EQ(seen(), "");
    EXPECT_FALSE(fs::exists(path(std::to_string(holder)))) << "swept";
    ::kill(child, SIGKILL);
    char none = 0;
    EXPECT_EQ(::read(ended[0], &none, 1), 0);
    for (const int fd : {told[0], told[1], ended[0]}) ::close(fd);
}

TEST_F(Assertions, WhatIsNoneNeitherCountsNorBlocks) {
    root_.write(kDirectory + "1", kIdentifier);
    root_.write(kDirectory + "2", kIdentifier);
    root_.write(kDirectory + "readme", "");
    fs::create_directories(path("3/4"));
    ASSERT_EQ(::mkfifo(path("5").c_str(), 0600), 0);
    fs::create_symlink("readme", path("6"));
    const file::UniqueFd openFile{::open(path("1").c_str(), O_RDWR | O_CLOEXEC)};
    ASSERT_TRUE(lockWhole(openFile.get(), F_OFD_SETLK));
    const file::UniqueFd flocked{::open(path("2").c_str(), O_RDWR | O_CLOEXEC)};
    ASSERT_EQ(::flock(flocked.get(), LOCK_EX), 0);
    EXPECT_EQ(seen(), "");
    EXPECT_TRUE(fs::exists(path("1"))) << "somebody may be removing it";
    EXPECT_FALSE(fs::exists(path("2"))) << "swept";
    EXPECT_TRUE(fs::exists(path("readme")));

    // In the way of what this process takes, too.
    fs::create_directories(path(std::to_string(::getpid())));
    ASSERT_EQ(::mkfifo(path(std::to_string(::getpid()) + "-1").c_str(), 0600), 0);
    const auto assertion = Assertion::take(kIdentifier);
    ASSERT_TRUE(assertion) << assertion.error().localizedDescription();
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
    if (looking == 0) {
        for (;;) seen();
    }
    int lost = 0;
    for (int i = 0; i < 1000; ++i) {
        root_.write(kDirectory + std::to_string(::getpid()), "stale");
        const auto assertion = Assertion::take(kIdentifier);
        if (!assertion || fs::is_empty(fs::path{path("")})) ++lost;
    }
    ::kill(looking, SIGKILL);
    ::waitpid(looking, nullptr, 0);
    EXPECT_EQ(lost, 0);
}

}  // namespace
}  // namespace assertions
