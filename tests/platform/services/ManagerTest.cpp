#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/bundle/Bundle.h"
#include "platform/mox/PeerIdentity.h"
#include "platform/plist/Plist.h"
#include "platform/services/Manager.h"
#include "tests/support/Mounts.h"
#include "tests/support/TemporaryDirectory.h"

namespace services {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using value::Dictionary;

const bool kOwnMounts = support::enterMountNamespace();

// A process that waits for its end.
class Host {
public:
    Host() {
        char name[] = "sleep", seconds[] = "600";
        char* const arguments[] = {name, seconds, nullptr};
        if (::posix_spawnp(&pid_, name, nullptr, nullptr, arguments, environ) != 0) pid_ = 0;
    }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;
    ~Host() { end(); }

    pid_t pid() const { return pid_; }
    void kill() const { ::kill(pid_, SIGKILL); }
    pid_t end() {
        if (ended_) return pid_;
        kill();
        ::waitpid(pid_, nullptr, 0);
        ended_ = true;
        return pid_;
    }

private:
    pid_t pid_ = 0;
    bool ended_ = false;
};

class ManagerTest : public testing::Test {
protected:
    // A bundle with an executable; answers the path of that.
    std::string install(const std::string& place, const Dictionary& info) const {
        root.write(place + "/Info.plist", *plist::writeXml(info.changing("QFBundleExecutable", "run")));
        return root.write(place + "/run", "#!/bin/sh\n");
    }
    std::string install(const std::string& place, const std::string& identifier, const std::string& version) const {
        return install(place, {{"QFBundleIdentifier", identifier}, {"QFBundleVersion", version}});
    }

    int add(pid_t process, const std::string& executable, const char* mark = "") const {
        mox::Dictionary overlay;
        overlay.set("mark", mark);
        return manager->add(process, executable, overlay);
    }

    int remove(const Manager::Service& service) const {
        const auto queue = std::make_shared<queue::SerialQueue>("answers");
        std::promise<int> answer;
        manager->remove(service, queue, [&](int result) { answer.set_value(queue->isCurrent() ? result : -1); });
        return answer.get_future().get();
    }

    // All that lies in the directory, by path from there.
    std::vector<std::string> files() const {
        std::vector<std::string> names;
        std::error_code none;
        for (const auto& entry : std::filesystem::recursive_directory_iterator{directory, none}) {
            if (!entry.is_directory()) names.push_back(entry.path().string().substr(directory.size() + 1));
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    bool awaitNothing() const {
        const auto patience = std::chrono::steady_clock::now() + std::chrono::seconds{1};
        while (std::filesystem::exists(directory) && !std::filesystem::is_empty(directory)) {
            if (std::chrono::steady_clock::now() > patience) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds{2});
        }
        return true;
    }

    const support::TemporaryDirectory root;
    const std::string directory = root / "run/services";
    std::shared_ptr<Manager> manager = Manager::open(directory);
    Host host;
    const std::string pid = std::to_string(host.pid());
};

TEST_F(ManagerTest, WritesWhatAStarterNeedsUnderANameThatStaysInTheDirectory) {
    const std::string executable = install("p", "org.example.p", "1.2");
    ASSERT_EQ(add(host.pid(), executable, "first"), 0);
    EXPECT_EQ(*plist::readFile(directory + "/" + pid + "/org.example.p@1.2.plist"),
              value::Value(Dictionary{{"host", host.pid()},
                                      {"hostStartTime", mox::startTimeOf(host.pid())},
                                      {"executable", executable},
                                      {"identifier", "org.example.p"},
                                      {"version", "1.2"},
                                      {"overlay", Dictionary{{"mark", "first"}}}}));
    EXPECT_EQ(remove({"org.example.p", "1.2", {}}), 0);
    EXPECT_FALSE(std::filesystem::exists(directory + "/" + pid));

    const struct {
        const char* name;
        Dictionary info;
        std::string file;
    } rows[] = {
        {"separators", {{"QFBundleIdentifier", "../../a/b"}, {"QFBundleVersion", "/1"}}, "%2E%2E%2F..%2Fa%2Fb@%2F1"},
        {"the separator of names", {{"QFBundleIdentifier", "a@2"}, {"QFBundleVersion", "3@4"}}, "a%402@3%404"},
        {"control characters", {{"QFBundleIdentifier", "a\nb\t"}, {"QFBundleVersion", "1"}}, "a%0Ab%09@1"},
        {"dots", {{"QFBundleIdentifier", ".."}, {"QFBundleVersion", "."}}, "%2E%2E@%2E"},
        {"a number", {{"QFBundleIdentifier", "a"}, {"QFBundleVersion", 7}}, "a@7"},
        {"neither", {}, "%empty@%empty"},
        {"beyond all measure", {{"QFBundleIdentifier", std::string(10'000, 'x')}}, "%empty@%empty"},
    };
    for (const auto& row : rows) {
        ASSERT_EQ(add(host.pid(), install(row.name, row.info)), 0) << row.name;
        EXPECT_THAT(files(), ElementsAre(pid + "/" + row.file + ".plist")) << row.name;
        EXPECT_EQ(remove({bundle::identifierOf(row.info), bundle::versionOf(row.info), root / row.name}), 0);
    }
    ASSERT_EQ(add(host.pid(), install("long", std::string(1000, '/'), std::string(1000, '\n'))), 0);
    EXPECT_EQ(files().size(), 1U) << "both too long for a file name, let alone together";
}

TEST_F(ManagerTest, RegistersABundleOnceForAHostAndTellsCopiesApart) {
    const std::string user = install("user/p", "p", "1"), system = install("system/p", "p", "1");
    ASSERT_EQ(add(host.pid(), user), 0);
    ASSERT_EQ(add(host.pid(), system), 0);
    ASSERT_EQ(add(host.pid(), user, "again"), 0);
    ASSERT_EQ(add(::getpid(), user), 0);
    const std::string own = std::to_string(::getpid());
    EXPECT_THAT(files(), testing::UnorderedElementsAre(pid + "/p@1.plist", pid + "/p@1@2.plist", own + "/p@1.plist"));

    EXPECT_EQ(remove({"p", "2", {}}), kNotRegistered);
    EXPECT_EQ(remove({"p", "1", root / "elsewhere"}), kNotRegistered);
    EXPECT_EQ(remove({"p", "1", root / "user/p"}), 0) << "for every host";
    EXPECT_THAT(files(), ElementsAre(pid + "/p@1@2.plist"));
    EXPECT_EQ(remove({"p", "1", root / "user/p"}), kNotRegistered);

    ASSERT_EQ(add(host.pid(), install("system/p", "p", "2")), 0) << "another version in the same place";
    EXPECT_THAT(files(), ElementsAre(pid + "/p@2.plist"));
}

TEST_F(ManagerTest, WithdrawsWhatAHostHadWhenItEnds) {
    const std::string executable = install("p", "p", "1");
    ASSERT_EQ(add(host.pid(), executable), 0);
    ASSERT_EQ(add(host.pid(), install("q", "q", "1")), 0);
    root.write("run/services/" + pid + "/.tmp-0123456789abcdef", "a piece");
    host.kill();  // not reaped: a zombie has ended, too
    EXPECT_TRUE(awaitNothing());
    EXPECT_EQ(remove({"p", "1", {}}), kNotRegistered);
    EXPECT_EQ(add(host.pid(), executable), ESRCH);
    EXPECT_EQ(add(host.end(), executable), ESRCH);
    EXPECT_EQ(add(-1, executable), EINVAL);
    EXPECT_THAT(files(), IsEmpty());
}

TEST_F(ManagerTest, TakesOverWhatAnEarlierRunLeftBehindAndDropsWhatIsOfNoUse) {
    const std::string executable = install("p", "p", "1");
    Host dead;
    ASSERT_EQ(add(host.pid(), executable), 0);
    ASSERT_EQ(add(dead.pid(), executable), 0);
    manager.reset();  // watches nobody any more
    const std::string former = std::to_string(dead.end());
    const std::string path = directory + "/" + pid + "/p@1.plist";
    const Dictionary sound = *plist::readFile(path)->dictionary();
    const auto plant = [&](const std::string& name, const value::Value& content) {
        root.write("run/services/" + name, *plist::writeXml(content));
    };
    plant("1/p@1.plist", sound);
    plant(pid + "/reused.plist", sound.changing("hostStartTime", 1));
    plant(pid + "/other.plist", sound.changing("host", 1));
    plant(pid + "/twice.plist", sound);
    plant(pid + "/no.plist", "text");
    plant(pid + "/p@1", sound.changing("executable", "/q/run"));
    root.write("run/services/" + pid + "/torn.plist", "<plist><di");
    ASSERT_EQ(::mkfifo((directory + "/" + pid + "/pipe.plist").c_str(), 0600), 0);
    ASSERT_EQ(::symlink(path.c_str(), (directory + "/" + pid + "/link.plist").c_str()), 0);
    root.write("elsewhere/precious", "");
    const Host other;  // where its directory should be, a link leads out
    ASSERT_EQ(::symlink((root / "elsewhere").c_str(), (directory + "/" + std::to_string(other.pid())).c_str()), 0);

    manager = Manager::open(directory);
    EXPECT_FALSE(std::filesystem::exists(directory + "/" + former));
    EXPECT_TRUE(std::filesystem::exists(root / "elsewhere/precious"));
    ASSERT_EQ(files().size(), 1U);
    EXPECT_EQ(remove({"p", "1", root / "p"}), 0);
    EXPECT_THAT(files(), IsEmpty());

    ASSERT_EQ(add(host.pid(), executable), 0);
    manager = Manager::open(directory);
    host.kill();
    EXPECT_TRUE(awaitNothing()) << "hosts that were taken over are watched";
}

TEST_F(ManagerTest, AnswersWithTheNumberOfWhatPreventsItAndGoesOn) {
    ASSERT_TRUE(kOwnMounts) << "needs a mount namespace";
    const std::string executable = install("p", "p", "1");
    EXPECT_EQ(add(host.pid(), root / "p/Info.plist"), ENOEXEC);
    EXPECT_EQ(add(host.pid(), root / "nowhere/run"), ENOEXEC);
    mox::Dictionary overlay;
    overlay.set("control", "\x01");
    EXPECT_EQ(manager->add(host.pid(), executable, overlay), EINVAL);
    overlay.set("control", std::string(300'000, 'x'));
    EXPECT_EQ(manager->add(host.pid(), executable, overlay), EFBIG);

    std::filesystem::create_directories(directory);
    {
        const auto small = support::Mount::small(directory, "16k");
        overlay.set("control", std::string(60'000, 'x'));
        EXPECT_EQ(manager->add(host.pid(), executable, overlay), ENOSPC);
        EXPECT_THAT(files(), IsEmpty());
        EXPECT_EQ(add(host.pid(), executable, "fits"), 0);
        small.setReadOnly(true);
        EXPECT_EQ(add(host.pid(), executable, "not to be written"), EROFS);
        EXPECT_EQ(remove({"p", "1", {}}), EROFS);
        EXPECT_EQ(plist::readFile(directory + "/" + pid + "/p@1.plist")->dictionary()->dictionary("overlay")->size(),
                  1U);
        small.setReadOnly(false);
    }
    EXPECT_EQ(remove({"p", "1", {}}), 0) << "what is gone already is removed";
    std::filesystem::remove_all(directory);
    EXPECT_EQ(add(host.pid(), executable), 0) << "the directory is made again";
    std::filesystem::remove_all(directory);
    root.write("run/services", "a file");
    EXPECT_EQ(add(host.pid(), executable), ENOTDIR);
}

TEST_F(ManagerTest, HasABoundForEachHost) {
    std::filesystem::create_directories(directory);
    const auto quick = support::Mount::small(directory, "8m");
    std::string executable;
    for (std::size_t i = 0; i < kMostRegistrations; ++i) {
        executable = install(std::to_string(i), "p", std::to_string(i));
        ASSERT_EQ(add(host.pid(), executable), 0);
    }
    EXPECT_EQ(add(host.pid(), install("more", "p", "more")), EDQUOT);
    EXPECT_EQ(add(host.pid(), executable), 0) << "again";
    EXPECT_EQ(add(::getpid(), install("more", "p", "more")), 0) << "another host";
}

}  // namespace
}  // namespace services
