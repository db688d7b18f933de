#include <condition_variable>
#include <mutex>

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
    {"Info.plist is replaced", "-a +a", "a",
     [](const Installation& w) {
         w.plugIn(kPlugIn, "a", {{"new", 1}});
     }},
    {"it has another identifier", "-a +z", "z", [](const Installation& w) { w.plugIn(kPlugIn, "z"); }},
    {"entitlements come", "-a +a", "a",
     [](const Installation& w) {
         w.write(kPlugIn + "/Entitlements.plist"s, Dictionary{{"e", true}});
     }},
    {"the application gets a name", "-a +a", "a",
     [](const Installation& w) {
         w.write("user/Applications/A.app/Info.plist", Dictionary{{"QFBundleName", "A"}});
     }},
};

std::string joined(const Texts& texts) {
    std::string all;
    for (const std::string& text : texts) all += all.empty() ? text : " " + text;
    return all;
}

std::size_t count(const char* words) {
    return words[2] == '\0' ? 1 : 2;
}

TEST(Changes, AreNoticedLive) {
    for (const bool watch : {true, false}) {
        for (const Change& change : kChanges) {
            SCOPED_TRACE(std::string{change.name} + (watch ? "" : ", polling"));
            Installation world;
            world.plugIn(kPlugIn, "a");
            auto& workspace = world.start({watch, std::chrono::milliseconds{20}});
            const auto witness = std::make_shared<Witness>();
            workspace.addObserver(witness);
            change.make(world);
            EXPECT_EQ(joined(witness->await(count(change.announced))), change.announced);
            world.settle();
            EXPECT_EQ(joined(world.identifiers()), change.installed);
            // A look that comes while a bundle goes may have a word on what is left of it.
            const auto tells = Contains(HasSubstr("no more watches"));
            EXPECT_THAT(world.log(), tells.Times(watch ? 0 : 1));
        }
    }
}

TEST(Changes, WhileNobodyLookedAreToldToTheFirstObserver) {
    for (const Change& change : kChanges) {
        SCOPED_TRACE(change.name);
        Installation world;
        world.plugIn(kPlugIn, "a");
        const auto unaware = std::make_shared<Witness>();
        world.start().addObserver(unaware);
        world.stop();
        EXPECT_THAT(unaware->await(0), IsEmpty());  // the first scan of an empty store

        change.make(world);
        auto& workspace = world.start();
        EXPECT_EQ(joined(world.identifiers()), change.installed);
        const auto first = std::make_shared<Witness>(), second = std::make_shared<Witness>();
        workspace.addObserver(first);
        EXPECT_EQ(joined(first->await(count(change.announced))), change.announced);
        workspace.addObserver(second);
        world.stop();
        EXPECT_THAT(second->await(0), IsEmpty());
    }
}

TEST(Changes, InPlaceKeepTheUuidAndTellOfTheOldRecordWhileItIsThere) {
    Installation world;
    world.plugIn(kPlugIn, "a");
    auto& workspace = world.start();
    const auto before = world.at(kPlugIn);
    const auto witness = std::make_shared<Witness>();
    std::shared_ptr<const DVVeltoProxy> going;
    witness->onUninstall = [&](const PluginList& plugins) { going = workspace.plugin(plugins[0]->pluginUUID()); };
    workspace.addObserver(witness);
    world.plugIn(kPlugIn, "a", {{"changed", true}});
    EXPECT_THAT(witness->await(2), ElementsAre("-a", "+a"));
    ASSERT_TRUE(going);
    const auto after = world.at(kPlugIn);
    EXPECT_LT(going->registrationDate().seconds, after->registrationDate().seconds);
    EXPECT_EQ(after->pluginUUID(), before->pluginUUID());
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
    auto& workspace = world.start();
    // While the observer is being told of one change, more happens than the kernel keeps notices of.
    const auto witness = std::make_shared<Witness>();
    witness->onUninstall = [&](const PluginList& plugins) {
        if (plugins[0]->pluginIdentifier() != "b") return;
        fs::create_directory(world.root / "user/Applications/x");
        for (int i = 0; i < 6'000; ++i) {  // four notices each
            world.move("user/Applications/x", "user/Applications/y");
            world.move("user/Applications/y", "user/Applications/x");
        }
        world.remove(kPlugIn);
    };
    workspace.addObserver(witness);
    world.remove("user/Applications/B.app");
    EXPECT_THAT(witness->await(2), ElementsAre("-b", "-a"));
}

TEST(Changes, NothingIsTakenForGoneWhileDescriptorsAreLacking) {
    Installation world;
    world.plugIn(kPlugIn, "a");
    world.plugIn("elsewhere/B.app/PlugIns/P", "b");
    auto& workspace = world.start();
    const auto witness = std::make_shared<Witness>();
    workspace.addObserver(witness);
    world.settle();
    {
        std::vector<file::UniqueFd> all;
        do {
            all.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        } while (all.back());
        world.move(kPlugIn, "user/Applications/A.app/PlugIns/Q.appex");
        world.move("elsewhere/B.app", "user/Applications/B.app");
        while (world.log().empty()) std::this_thread::yield();  // until it has been looked at, in vain
        EXPECT_THAT(world.identifiers(), ElementsAre("a"));
    }
    EXPECT_THAT(witness->await(3), testing::UnorderedElementsAre("-a", "+a", "+b"));
}

TEST(Registration, IsKeptOverRestartsUntilItIsWithdrawn) {
    Installation world;
    const std::string path = world.plugIn("elsewhere/X.app/PlugIns/P.appex", "p");
    auto* workspace = &world.start();
    const auto witness = std::make_shared<Witness>();
    workspace->addObserver(witness);
    EXPECT_TRUE(workspace->registerPlugin(path));
    EXPECT_THAT(world.identifiers(), ElementsAre("p"));
    EXPECT_THAT(witness->await(1), ElementsAre("+p"));
    const value::Uuid uuid = workspace->pluginAtPath(path)->pluginUUID();
    EXPECT_TRUE(workspace->registerPlugin(path));

    world.stop();
    world.move("state", "moved");
    fs::create_directory_symlink("moved", world.root / "state");
    workspace = &world.start();
    ASSERT_THAT(world.identifiers(), ElementsAre("p"));
    EXPECT_EQ(workspace->pluginAtPath(path)->pluginUUID(), uuid);
    const auto containing = workspace->pluginAtPath(path)->containingBundle();
    ASSERT_TRUE(containing && containing->application);
    EXPECT_EQ(containing->bundlePath, world.root / "elsewhere/X.app");
    EXPECT_EQ(workspace->pluginsOf(*containing->application).size(), 1U);

    workspace->addObserver(witness);
    world.plugIn("elsewhere/X.app/PlugIns/P.appex", "p", {{"changed", true}});
    EXPECT_TRUE(workspace->registerPlugin(path));
    EXPECT_EQ(workspace->pluginAtPath(path)->pluginDictionary(), (Dictionary{{"changed", true}}));
    EXPECT_THAT(witness->await(2), ElementsAre("-p", "+p"));
    world.move("elsewhere/X.app/PlugIns", "elsewhere/X.app/Away");
    world.move("elsewhere/X.app/Away/P.appex", "elsewhere/X.app/P.appex");
    EXPECT_THAT(witness->await(1), ElementsAre("-p"));
    world.move("elsewhere/X.app/P.appex", "elsewhere/X.app/Away/P.appex");
    world.move("elsewhere/X.app/Away", "elsewhere/X.app/PlugIns");
    EXPECT_THAT(witness->await(1), ElementsAre("+p"));

    world.move("elsewhere/X.app", "elsewhere/Y.app");
    EXPECT_TRUE(workspace->unregisterPlugin(path + "/.//"));
    EXPECT_FALSE(workspace->unregisterPlugin(path));
    world.move("elsewhere/Y.app", "elsewhere/X.app");
    EXPECT_THAT(world.identifiers(), IsEmpty());
    world.start();
    EXPECT_THAT(world.identifiers(), IsEmpty());
}

TEST(Registration, RefusesWhatIsNoPlugIn) {
    Installation world;
    world.write("elsewhere/plain/Info.plist", Dictionary{{"QFBundleIdentifier", "x"}});
    world.writeText("elsewhere/file", "");
    world.plugIn(kPlugIn, "a");
    auto& workspace = world.start();
    for (const char* const path : {"elsewhere/plain", "elsewhere/file", "elsewhere/missing", "elsewhere"})
        EXPECT_FALSE(workspace.registerPlugin(world.root / path)) << path;
    EXPECT_FALSE(workspace.unregisterPlugin(world.root / kPlugIn));  // installed, but not by registration
    EXPECT_TRUE(workspace.registerPlugin(world.root / kPlugIn));
    EXPECT_TRUE(workspace.unregisterPlugin(world.root / kPlugIn));
    EXPECT_THAT(world.identifiers(), ElementsAre("a"));
}

}  // namespace
}  // namespace dravo
