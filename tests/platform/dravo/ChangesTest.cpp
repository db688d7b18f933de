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

// One after the other, with what each announces.
struct SdkChange {
    const char *name, *announced;
    void (*make)(const Installation& world);
};

void putSdk(const Installation& w, const std::string& path, const std::string& content) {
    w.write(path, Dictionary{{"k", content}});
}

const SdkChange kSdkChanges[] = {
    {"one comes with the directory", "-a -m1 -m2 +a +m1 +m2",
     [](const Installation& w) { putSdk(w, "system/SDKs/p.plist", "1"); }},
    {"written in place", "-a -m1 -m2 +a +m1 +m2",
     [](const Installation& w) {
         w.root.writeList("system/SDKs/p.plist", Dictionary{{"k", "2"}});
     }},
    {"exchanged by renaming", "-a -m1 -m2 +a +m1 +m2",
     [](const Installation& w) { putSdk(w, "system/SDKs/p.plist", "3"); }},
    {"exchanged for the same, another's comes", "-b +b",
     [](const Installation& w) {
         putSdk(w, "system/SDKs/p.plist", "3");
         putSdk(w, "system/SDKs/q.plist", "1");
     }},
    {"no longer to be read", "-a -m1 -m2 +a +m1 +m2",
     [](const Installation& w) {
         w.remove("system/SDKs/p.plist");
         fs::create_symlink("nowhere", w.root / "system/SDKs/p.plist");
     }},
    {"to be read again", "-a -m1 -m2 +a +m1 +m2", [](const Installation& w) { putSdk(w, "system/SDKs/p.plist", "3"); }},
    {"another goes first", "-a -m1 -m2 +a +m1 +m2", [](const Installation& w) { putSdk(w, "test/p", "4"); }},
    {"what comes second changes nothing", "-b +b",
     [](const Installation& w) {
         putSdk(w, "system/SDKs/p.plist", "5");
         w.remove("system/SDKs/q.plist");
     }},
    {"the first goes", "-a -m1 -m2 +a +m1 +m2", [](const Installation& w) { w.remove("test"); }},
    {"the directory is exchanged", "-a -m1 -m2 +a +m1 +m2",
     [](const Installation& w) {
         putSdk(w, "SDKs/p.plist", "6");
         w.move("system/SDKs", "SDKs.old");
         w.move("SDKs", "system/SDKs");
     }},
    {"what a link leads to comes in its place", "-a -m1 -m2 +a +m1 +m2",
     [](const Installation& w) {
         putSdk(w, "elsewhere/p", "7");
         fs::create_symlink("../../elsewhere/p", w.root / "link");
         w.move("link", "system/SDKs/p.plist");
     }},
    {"that is written in place", "-a -m1 -m2 +a +m1 +m2",
     [](const Installation& w) {
         w.root.writeList("elsewhere/p", Dictionary{{"k", "8"}});
     }},
    {"the directory is a link to another, by now", "-a -m1 -m2 +a +m1 +m2",
     [](const Installation& w) {
         putSdk(w, "one/p.plist", "9");
         w.remove("system/SDKs");
         fs::create_directory_symlink("../one", w.root / "system/SDKs");
     }},
    {"that leads elsewhere", "-a -m1 -m2 +a +m1 +m2",
     [](const Installation& w) {
         putSdk(w, "two/p.plist", "10");
         fs::create_directory_symlink("../two", w.root / "link");
         w.move("link", "system/SDKs");
     }},
    {"the directory goes", "-a -m1 -m2 +a +m1 +m2", [](const Installation& w) { w.remove("system/SDKs"); }},
};

TEST(Changes, AnSdkBelongsToTheRecordsOfItsPlugIns) {
    for (const bool watched : {true, false}) {
        Installation world;
        ::setenv("VTTEST_SDK", (world.root / "test").c_str(), 1);
        world.plugIn("system/PlugIns/a", "a", {{"KXExtensionPointIdentifier", "p"}});
        world.plugIn("system/PlugIns/b", "b", {{"KXExtensionPointIdentifier", "q"}});
        world.plugIn("system/PlugIns/m", "m",
                     {{"Multiple", Dictionary{{"m1", Dictionary{{"KXExtensionPointIdentifier", "p"}}},
                                              {"m2", Dictionary{{"KXExtensionPointIdentifier", "r"}}}}}});
        world.start({watched, std::chrono::milliseconds{20}});
        const auto uuid = world.at("system/PlugIns/a")->pluginUUID();
        auto witness = world.witness();
        for (const SdkChange& change : kSdkChanges) {
            SCOPED_TRACE(std::string{change.name} + (watched ? " watched" : " polled"));
            const auto before = world.at("system/PlugIns/a")->fingerprint();
            change.make(world);
            EXPECT_EQ(witness->told(change.announced), change.announced);
            world.settle();
            EXPECT_EQ(world.at("system/PlugIns/a")->fingerprint() == before, "-b +b"s == change.announced);
            EXPECT_EQ(world.at("system/PlugIns/a")->pluginUUID(), uuid);
        }
        world.stop();
        putSdk(world, "system/SDKs/q.plist", "7");
        world.start();
        witness = world.witness();
        EXPECT_EQ(witness->told("-b +b"), "-b +b") << "while nobody was looking";
        ::unsetenv("VTTEST_SDK");
    }
}

// Whoever has a record acts on its directory, whatever lies at the path before the registry has looked again.
TEST(Changes, ARecordMeansTheDirectoryThatWasReadAndNoOther) {
    Installation world;
    const std::string app = "user/Applications/A.app", plugIns = app + "/PlugIns";
    world.plugIn(kPlugIn, "a");
    world.plugIn("outside/PlugIns/P.appex", "outside");
    world.start({.watch = false, .pollPeriod = std::chrono::hours{1}});
    world.settle();
    const auto plugIn = world.at(kPlugIn);
    const auto opened = [&]() -> std::string {
        const auto directory = plugIn->openBundle();
        const auto info = plugIn->readInfo();
        if (info && !info->isAsKnown) return "another content";
        EXPECT_EQ(directory.ok(), info.ok());
        return directory ? "opened" : strerrorname_np(static_cast<int>(directory.error().code));
    };
    const auto linked = [&](const std::string& at, const std::string& from) {
        world.move(at, "away");
        fs::create_directory_symlink(world.root / from, world.root / at);
        std::string outcome = opened();
        fs::remove(world.root / at);
        world.move("away", at);
        return outcome;
    };
    const auto exchanged = [&](const std::string& at, const std::string& from) {
        world.move(at, "away");
        world.move(from, at);
        std::string outcome = opened();
        world.move(at, from);
        world.move("away", at);
        return outcome;
    };
    EXPECT_EQ(opened(), "opened");
    for (const std::string& at : {app, plugIns, std::string{kPlugIn}}) {
        EXPECT_EQ(linked(at, "outside"), "ELOOP") << at;
        EXPECT_EQ(linked(at, "away"), "ELOOP") << at << ", though the link leads to the very directory";
    }
    EXPECT_EQ(exchanged(kPlugIn, "outside/PlugIns/P.appex"), "ESTALE");
    EXPECT_EQ(exchanged(plugIns, "outside/PlugIns"), "ESTALE");
    world.move(kPlugIn, "outside/PlugIns/Q.appex");
    EXPECT_EQ(opened(), "ENOENT");
    fs::remove_all(world.root / "outside/PlugIns/P.appex");
    world.move("outside/PlugIns/Q.appex", "outside/PlugIns/P.appex");
    EXPECT_EQ(exchanged(app, "outside"), "ESTALE") << "the very bundle, in another application";
    world.move("outside/PlugIns/P.appex", kPlugIn);
    EXPECT_EQ(opened(), "opened");

    const std::string info = kPlugIn + "/Info.plist"s;
    world.move(info, "kept");
    world.plugIn(kPlugIn, "b");
    EXPECT_EQ(opened(), "another content");
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
