#include <sys/inotify.h>
#include <sys/resource.h>

#include "platform/file/UniqueFd.h"
#include "tests/platform/dravo/Installation.h"

namespace dravo {
namespace {

constexpr char kPlugIn[] = "user/Applications/A.app/PlugIns/P.appex";

// Changes on disk, each with what is announced and what is installed in the end. Before each there is kPlugIn ("a").
struct Change {
    const char *name, *announced, *installed;
    void (*make)(const Installation& world);
};

const Change kChanges[] = {
    {"an application comes", "+b", "a b",
     [](const Installation& w) { w.plugIn("user/Applications/B.app/PlugIns/P", "b"); }},
    {"one comes in a container, moved in whole", "+b", "a b",
     [](const Installation& w) {
         w.plugIn("elsewhere/B.app/PlugIns/P", "b");
         fs::create_directories(w.root / "user/Applications/container");
         w.move("elsewhere/B.app", "user/Applications/container/B.app");
     }},
    {"the system volume's directories appear", "+s", "s a",
     [](const Installation& w) {
         w.plugIn("elsewhere/PlugIns/P", "s");
         w.move("elsewhere/PlugIns", "system/PlugIns");
     }},
    {"a plug-in comes to an application", "+q", "a q",
     [](const Installation& w) { w.plugIn("user/Applications/A.app/PlugIns/Q", "q"); }},
    {"a plug-in goes", "-a", "", [](const Installation& w) { w.remove(kPlugIn); }},
    {"an application is moved away", "-a", "",
     [](const Installation& w) { w.move("user/Applications/A.app", "user/A.app"); }},
    {"everything goes", "-a", "", [](const Installation& w) { w.remove("user/Applications"); }},
    {"Info.plist is replaced by one with another identifier", "-a +z", "z",
     [](const Installation& w) { w.plugIn(kPlugIn, "z"); }},
    {"entitlements come", "-a +a", "a",
     [](const Installation& w) {
         w.write(kPlugIn + "/Entitlements.plist"s, Dictionary{{"e", true}});
     }},
    {"the application gets a name", "-a +a", "a",
     [](const Installation& w) {
         w.write("user/Applications/A.app/Info.plist", Dictionary{{"QFBundleName", "A"}});
     }},
};

TEST(Changes, AreToldAsTheyComeWatchedOrPolledOrOnceSomebodyLooks) {
    enum Way { watched, polled, notLooking };
    for (const Way way : {watched, polled, notLooking}) {
        if (way != polled && !file::UniqueFd{::inotify_init1(IN_CLOEXEC)}) {
            skipPart("nothing can be watched here");
            continue;
        }
        for (const Change& change : kChanges) {
            SCOPED_TRACE(std::string{change.name} + " " + std::to_string(way));
            Installation world;
            world.plugIn(kPlugIn, "a");
            world.start({way != polled, std::chrono::milliseconds{20}});
            auto witness = world.witness();
            if (way == notLooking) world.stop();
            change.make(world);
            if (way == notLooking) {
                EXPECT_EQ(witness->told(""), "") << "the first scan of an empty store";
                world.start();
                witness = world.witness();
            }
            EXPECT_EQ(witness->told(change.announced), change.announced);
            world.settle();
            EXPECT_EQ(world.identifiers(), change.installed);
            // A look that comes while a bundle goes may have a word on what is left of it.
            EXPECT_THAT(world.log.take(), Contains(HasSubstr("no more watches")).Times(way == polled ? 1 : 0));
        }
    }
}

TEST(Changes, ADirectoryWithTheSameContentCountsAsAnotherUnlessNobodyWasLooking) {
    Installation world;
    world.plugIn(kPlugIn, "a");
    world.start();
    auto witness = world.witness();
    world.plugIn("elsewhere/P.appex", "a");
    world.move(kPlugIn, "elsewhere/old");
    world.move("elsewhere/P.appex", kPlugIn);
    EXPECT_EQ(witness->told("-a +a"), "-a +a");
    world.stop();
    world.move(kPlugIn, "elsewhere/older");
    world.plugIn(kPlugIn, "a");
    world.start();
    witness = world.witness();
    world.settle();
    EXPECT_EQ(witness->told(""), "");
}

TEST(Changes, InPlaceKeepTheUuidAndTellOfTheOldRecordWhileItIsThere) {
    Installation world;
    world.plugIn(kPlugIn, "a");
    auto& workspace = world.start();
    EXPECT_THAT(whyNot(openWorkspace({})), HasSubstr("process " + std::to_string(::getpid()))) << "one has the store";
    const auto before = world.at(kPlugIn);
    std::shared_ptr<const DVVeltoProxy> going;
    const auto witness =
        world.witness([&](const auto& plugins) { going = workspace.plugin(plugins[0]->pluginUUID()); });
    world.plugIn(kPlugIn, "a", {{"changed", true}});
    EXPECT_EQ(witness->told("-a +a"), "-a +a");
    const auto after = world.at(kPlugIn);
    ASSERT_TRUE(going && after);
    EXPECT_EQ(after->pluginUUID(), before->pluginUUID());
    EXPECT_EQ(going->registrationDate(), before->registrationDate());
    EXPECT_GT(after->registrationDate().seconds, before->registrationDate().seconds);
    EXPECT_EQ(after->pluginDictionary(), (Dictionary{{"changed", true}}));
    world.start();
    EXPECT_EQ(world.at(kPlugIn)->pluginUUID(), before->pluginUUID());
    EXPECT_EQ(world.at(kPlugIn)->registrationDate(), after->registrationDate());
}

TEST(Changes, SurviveAnOverflowOfNotices) {
    Installation world;
    world.plugIn(kPlugIn, "a");
    world.plugIn("user/Applications/B.app/PlugIns/P", "b");
    world.start();
    // While the observer is being told of one change, more happens than the kernel keeps notices of.
    const auto witness = world.witness([&](const PluginList& plugins) {
        if (plugins[0]->pluginIdentifier() != "b") return;
        fs::create_directory(world.root / "user/Applications/x");
        for (int i = 0; i < 6'000; ++i) {  // four notices each
            world.move("user/Applications/x", "user/Applications/y");
            world.move("user/Applications/y", "user/Applications/x");
        }
        world.remove(kPlugIn);
    });
    world.remove("user/Applications/B.app");
    EXPECT_EQ(witness->told("-b -a"), "-b -a");
}

TEST(Changes, NothingIsTakenForGoneWhileDescriptorsAreLacking) {
    Installation world;
    world.plugIn(kPlugIn, "a");
    world.plugIn("elsewhere/B.app/PlugIns/P", "b");
    world.start();
    const auto witness = world.witness();
    world.settle();
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const int lowest = file::UniqueFd{::open("/dev/null", O_RDONLY | O_CLOEXEC)}.get();
    const rlimit none{static_cast<rlim_t>(lowest), before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    world.move(kPlugIn, "user/Applications/A.app/PlugIns/Q.appex");
    world.move("elsewhere/B.app", "user/Applications/B.app");
    while (world.log.take().empty()) std::this_thread::yield();  // until it has been looked at, in vain
    EXPECT_EQ(world.identifiers(), "a");
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_THAT(witness->told("-a +a +b"), AllOf(SizeIs(8), HasSubstr("-a"), HasSubstr("+a"), HasSubstr("+b")));
}

TEST(Changes, OfWhatALinkLeadsToAreToldAlsoWhenADirectoryAboveItMoves) {
    Installation world;
    world.plugIn("user/Elsewhere/Real.app/PlugIns/P", "r");
    fs::create_directories(world.root / "user/Applications");
    fs::create_directory_symlink("../Elsewhere/Real.app", world.root / "user/Applications/L.app");
    world.start();
    const auto witness = world.witness();
    world.settle();
    world.move("user/Elsewhere", "user/Old");
    EXPECT_EQ(witness->told("-r"), "-r");
}

TEST(Changes, OfARegisteredPathAreToldUntilItIsWithdrawnOverRestartsToo) {
    Installation world;
    const std::string path = world.plugIn("elsewhere/X.app/PlugIns/P.appex", "p");
    auto* workspace = &world.start();
    auto witness = world.witness();
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(workspace->registerPlugin(path, kAnybody));
    EXPECT_EQ(witness->told("+p"), "+p");
    const value::Uuid uuid = workspace->pluginAtPath(path)->pluginUUID();

    world.stop();
    world.move("state", "moved");
    fs::create_directory_symlink("moved", world.root / "state");
    workspace = &world.start();
    ASSERT_EQ(world.identifiers(), "p");
    EXPECT_EQ(workspace->pluginAtPath(path)->pluginUUID(), uuid);
    EXPECT_THAT(workspace->pluginsOf(*workspace->applicationAtPath(world.root / "elsewhere/X.app")), SizeIs(1));

    witness = world.witness();
    world.plugIn("elsewhere/X.app/PlugIns/P.appex", "p", {{"changed", true}});
    EXPECT_TRUE(workspace->registerPlugin(path, kAnybody));
    EXPECT_EQ(workspace->pluginAtPath(path)->pluginDictionary(), (Dictionary{{"changed", true}}));
    EXPECT_EQ(witness->told("-p +p"), "-p +p");
    world.settle();
    world.move("elsewhere/X.app/PlugIns", "elsewhere/X.app/Away");
    EXPECT_EQ(witness->told("-p"), "-p");
    world.move("elsewhere/X.app/Away", "elsewhere/X.app/PlugIns");
    EXPECT_EQ(witness->told("+p"), "+p");
    world.move("elsewhere/X.app", "elsewhere/Y.app");
    EXPECT_TRUE(workspace->unregisterPlugin(path + "/.//"));
    EXPECT_FALSE(workspace->unregisterPlugin(path));
    world.move("elsewhere/Y.app", "elsewhere/X.app");
    EXPECT_EQ(world.identifiers(), "");
    world.start();
    EXPECT_EQ(world.identifiers(), "");
}

}  // namespace
}  // namespace dravo
