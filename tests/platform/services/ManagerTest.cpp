#include <algorithm>

#include "platform/bundle/Bundle.h"
#include "platform/mox/PeerIdentity.h"
#include "platform/services/Manager.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Mounts.h"
#include "tests/support/Words.h"

namespace services {
namespace {

const bool kOwnMounts = support::enterMountNamespace();

// A process that waits for its end.
struct Host : support::ChildProcess {
    Host() : ChildProcess{[] { return "up"s; }} {}
    const std::string name = std::to_string(pid());
};

class ManagerTest : public testing::Test {
protected:
    // A bundle with an executable; answers the path of that.
    std::string install(const std::string& place, const Dictionary& info) const {
        root.writeList(place + "/Info.plist", info.changing("QFBundleExecutable", "run"));
        return root.write(place + "/run", "#!/bin/sh\n");
    }
    std::string install(const std::string& place, const std::string& identifier, const std::string& version) const {
        return install(place, {{"QFBundleIdentifier", identifier}, {"QFBundleVersion", version}});
    }

    int add(pid_t process, const std::string& executable, const std::string& mark = {}) const {
        mox::Dictionary overlay;
        overlay.set("mark", mark);
        return addAs({"one", kOne}, process, executable, overlay);
    }
    int addAs(const Manager::PlugIn& plugIn, pid_t process, const std::string& executable,
              const mox::Dictionary& overlay) const {
        const auto bundle = bundle::Bundle::open(fs::path{executable}.parent_path(), bundle::PathKind::directory);
        return manager->add(process, plugIn, executable, *bundle, overlay);
    }

    int remove(const Manager::Service& service) const {
        const auto queue = std::make_shared<queue::SerialQueue>("answers");
        std::promise<int> answer;
        manager->remove(service, queue, [&](int result) { answer.set_value(queue->isCurrent() ? result : -1); });
        return answer.get_future().get();
    }

    // All that lies in the directory, by path from there.
    Texts files() const {
        Texts names;
        std::error_code none;
        for (fs::recursive_directory_iterator at{directory, none}, end; !none && at != end; at.increment(none)) {
            if (at->path().filename() == ".discarded") at.disable_recursion_pending();  // goes behind our back
            if (!at->is_directory(none)) names.push_back(fs::relative(at->path(), directory));
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    // Whether the host's registrations go within a second.
    bool awaitNothing() const {
        for (int tries = 0; tries < 500 && fs::exists(directory + "/" + host.name); ++tries) ::usleep(2000);
        return !fs::exists(directory + "/" + host.name);
    }

    const value::Uuid kOne = value::Uuid::random();
    const support::PrivateRoot root;
    const std::string directory = root / "run/services";
    std::shared_ptr<Manager> manager = Manager::open(directory);
    Host host;
};

TEST_F(ManagerTest, WritesWhatAStarterNeedsUnderANameThatStaysInTheDirectory) {
    const std::string executable = install("p", "org.example.p", "1.2");
    ASSERT_EQ(add(host.pid(), executable, "first"), 0);
    EXPECT_EQ(*plist::readFile(directory + "/" + host.name + "/org.example.p@1.2.plist"),
              Value(Dictionary{{"host", host.pid()},
                               {"hostStartTime", mox::startTimeOf(host.pid())},
                               {"boot", bootIdentifier()},
                               {"executable", executable},
                               {"identifier", "org.example.p"},
                               {"version", "1.2"},
                               {"plugIn", "one"},
                               {"uuid", kOne.string()},
                               {"overlay", Dictionary{{"mark", "first"}}}}));
    EXPECT_EQ(remove({"org.example.p", "1.2", {}}), 0);

    const struct {
        const char* name;
        Value identifier, version;
        std::string file;
    } rows[] = {
        {"separators", "../../a/b", "/1", "%2E%2E%2F..%2Fa%2Fb@%2F1"},
        {"the separator of names", "a@2", "3@4", "a%402@3%404"},
        {"control characters", "a\nb\t", "1", "a%0Ab%09@1"},
        {"dots", "..", ".", "%2E%2E@%2E"},
        {"a number", "a", 7, "a@7"},
        {"beyond all measure", std::string(10'000, 'x'), Array{}, "%empty@%empty"},
    };
    for (const auto& row : rows) {
        const Dictionary info{{"QFBundleIdentifier", row.identifier}, {"QFBundleVersion", row.version}};
        ASSERT_EQ(add(host.pid(), install(row.name, info)), 0) << row.name;
        EXPECT_THAT(files(), ElementsAre(host.name + "/" + row.file + ".plist")) << row.name;
        EXPECT_EQ(remove({bundle::identifierOf(info), bundle::versionOf(info), root / row.name}), 0);
    }
    ASSERT_EQ(add(host.pid(), install("long", std::string(1000, '/'), std::string(1000, '\n'))), 0);
    EXPECT_THAT(files(), SizeIs(1)) << "both too long for a file name, let alone together";
}

TEST_F(ManagerTest, RegistersAPlugInOnceForAHostAndTellsCopiesAndPlugInsOfOneBundleApart) {
    const std::string user = install("user/p", "p", "1"), system = install("system/p", "p", "1");
    for (const std::string& executable : {user, system, user}) ASSERT_EQ(add(host.pid(), executable), 0);
    ASSERT_EQ(add(::getpid(), user), 0);
    EXPECT_THAT(files(), testing::UnorderedElementsAre(host.name + "/p@1.plist", host.name + "/p@1@2.plist",
                                                       std::to_string(::getpid()) + "/p@1.plist"));
    EXPECT_EQ(remove({"p", "2", {}}), kNotRegistered);
    EXPECT_EQ(remove({"p", "1", root / "elsewhere"}), kNotRegistered);
    EXPECT_EQ(remove({"p", "1", root / "user/p"}), 0) << "for every host";
    EXPECT_THAT(files(), ElementsAre(host.name + "/p@1@2.plist"));
    ASSERT_EQ(add(host.pid(), install("system/p", "p", "2")), 0) << "another version in the same place";
    EXPECT_THAT(files(), ElementsAre(host.name + "/p@2.plist"));
    for (int times = 0; times < 2; ++times) {
        mox::Dictionary overlay;
        ASSERT_EQ(addAs({"two", value::Uuid{}}, host.pid(), root / "system/p/run", overlay), 0);
    }
    EXPECT_THAT(files(), ElementsAre(host.name + "/p@2.plist", host.name + "/p@2@2.plist"));
    EXPECT_EQ(remove({"p", "2", root / "system/p"}), 0);
    EXPECT_THAT(files(), IsEmpty());
}

TEST_F(ManagerTest, WithdrawsWhatAHostHadWhenItEnds) {
    const std::string executable = install("p", "p", "1");
    ASSERT_EQ(add(host.pid(), executable), 0);
    root.write("run/services/" + host.name + "/.tmp-0123456789abcdef", "a piece");
    ::kill(host.pid(), SIGKILL);  // not reaped: a zombie has ended, too
    EXPECT_TRUE(awaitNothing());
    EXPECT_EQ(remove({"p", "1", {}}), kNotRegistered);
    EXPECT_EQ(add(host.pid(), executable), ESRCH);
    EXPECT_EQ(add(-1, executable), EINVAL);
    EXPECT_THAT(files(), IsEmpty());
}

TEST_F(ManagerTest, TakesOverWhatAnEarlierRunLeftBehindAndDropsWhatIsOfNoUse) {
    const std::string executable = install("p", "p", "1");
    Host dead;
    for (const Host* each : {&host, &dead}) ASSERT_EQ(add(each->pid(), executable), 0);
    manager.reset();  // watches nobody any more
    dead.end();
    const std::string own = "run/services/" + host.name;
    const Dictionary sound = *plist::readFile(root / (own + "/p@1.plist"))->dictionary();
    root.writeList("run/services/1/p@1.plist", sound);
    root.writeList(own + "/reused.plist", sound.changing("hostStartTime", 1));
    root.writeList(own + "/other.plist", sound.changing("host", 1));
    root.writeList(own + "/rebooted.plist", sound.changing("boot", "another"));
    root.writeList(own + "/twice.plist", sound);
    root.writeList(own + "/no.plist", "text");
    root.writeList(own + "/p@1", sound.changing("executable", "/q/run"));
    root.write(own + "/torn.plist", "<plist><di");
    ASSERT_EQ(::mkfifo((root / (own + "/pipe.plist")).c_str(), 0600), 0);
    fs::create_symlink("p@1.plist", root / (own + "/link.plist"));
    const Host other;  // where its directory should be, a link leads out
    root.write("elsewhere/precious", "");
    fs::create_directory_symlink(root / "elsewhere", directory + "/" + other.name);

    manager = Manager::open(directory);
    EXPECT_TRUE(fs::exists(root / "elsewhere/precious"));
    EXPECT_THAT(files(), SizeIs(1));
    EXPECT_EQ(remove({"p", "1", root / "p"}), 0);
    EXPECT_THAT(files(), IsEmpty());

    ASSERT_EQ(add(host.pid(), executable), 0);
    manager = Manager::open(directory);
    host.end();
    EXPECT_TRUE(awaitNothing()) << "hosts that were taken over are watched";
}

TEST_F(ManagerTest, AnswersWithTheNumberOfWhatPreventsItAndGoesOn) {
    if (!kOwnMounts) GTEST_SKIP() << "no mounts here";
    const std::string executable = install("p", "p", "1");
    EXPECT_EQ(add(host.pid(), root / "p/Info.plist"), ENOEXEC);
    EXPECT_EQ(add(host.pid(), root / "nowhere/run"), ENOEXEC);
    EXPECT_EQ(add(host.pid(), executable, "\x01"), EINVAL);
    EXPECT_EQ(add(host.pid(), executable, std::string(300'000, 'x')), EFBIG);

    fs::create_directories(directory);
    {
        const auto small = support::Mount::small(directory, "16k");
        EXPECT_EQ(add(host.pid(), executable, std::string(60'000, 'x')), ENOSPC);
        EXPECT_THAT(files(), IsEmpty());
        EXPECT_EQ(add(host.pid(), executable, "fits"), 0);
        small.setReadOnly(true);
        EXPECT_EQ(add(host.pid(), executable, "not to be written"), EROFS);
        EXPECT_EQ(remove({"p", "1", root / "p"}), EROFS);
        EXPECT_THAT(files(), SizeIs(1));
        small.setReadOnly(false);
        EXPECT_EQ(remove({"unknown", "1", "/elsewhere"}), kNotRegistered);
        EXPECT_THAT(files(), IsEmpty()) << "what was owed went before that";
        EXPECT_EQ(add(host.pid(), executable), 0);
    }
    EXPECT_EQ(remove({"p", "1", {}}), 0) << "what is gone already is removed";
    fs::remove_all(directory);
    EXPECT_EQ(add(host.pid(), executable), 0) << "the directory is made again";
    fs::remove_all(directory);
    root.write("run/services", "a file");
    EXPECT_EQ(add(host.pid(), executable), ENOTDIR);
}

}  // namespace
}  // namespace services
