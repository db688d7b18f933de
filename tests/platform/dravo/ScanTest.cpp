#include "tests/platform/dravo/Installation.h"

namespace dravo {
namespace {

Dictionary info(const std::string& identifier, const Dictionary& description = {}) {
    return {{"QFBundleIdentifier", identifier}, {"KXExtension", description}};
}

TEST(Scan, FindsPlugInsOfApplicationsOnBothVolumesAndTheSystemsOwn) {
    Installation world;
    world.plugIn("user/Applications/A.app/PlugIns/P.appex", "a.direct");
    world.plugIn("user/Applications/B0F4/B.app/PlugIns/P.appex", "b.contained");
    world.plugIn("system/Applications/C.app/PlugIns/P.appex", "c.system");
    world.plugIn("system/PlugIns/D.bundle", "d.lone");
    world.plugIn("user/PlugIns/E.bundle", "e.nowhere");
    world.plugIn("user/Applications/F/G/H.app/PlugIns/P.appex", "h.too-deep");
    world.plugIn("user/Applications/A.app/PlugIns/Sub/Q.appex", "q.too-deep");
    auto& workspace = world.start();
    EXPECT_THAT(world.identifiers(), ElementsAre("c.system", "d.lone", "a.direct", "b.contained"));

    const struct {
        const char *plugIn, *application;
        std::optional<std::string> container;
    } rows[] = {
        {"user/Applications/A.app/PlugIns/P.appex", "user/Applications/A.app", {}},
        {"user/Applications/B0F4/B.app/PlugIns/P.appex", "user/Applications/B0F4/B.app",
         world.root / "user/Applications/B0F4"},
        {"system/Applications/C.app/PlugIns/P.appex", "system/Applications/C.app", {}},
    };
    for (const auto& row : rows) {
        const auto plugIn = world.at(row.plugIn);
        ASSERT_TRUE(plugIn && plugIn->containingBundle()) << row.plugIn;
        EXPECT_EQ(plugIn->onSystemPartition(), row.plugIn[0] == 's') << row.plugIn;
        EXPECT_EQ(plugIn->containingBundle()->bundlePath, world.root / row.application);
        const auto application = workspace.applicationAtPath(world.root / row.application);
        ASSERT_TRUE(application) << row.application;
        EXPECT_EQ(application->bundleContainerPath(), row.container) << row.application;
        EXPECT_EQ(workspace.pluginsOf(*application), PluginList{plugIn}) << row.application;
    }
    EXPECT_FALSE(world.at("system/PlugIns/D.bundle")->containingBundle());
    EXPECT_TRUE(world.at("system/PlugIns/D.bundle")->onSystemPartition());
}

TEST(Scan, TellsWhatABundleSaysOfItself) {
    Installation world;
    world.write("user/Applications/A.app/Info.plist",
                Dictionary{{"QFBundleIdentifier", "app"}, {"QFBundleName", "App"}});
    const Dictionary description{{"KXExtensionIdentifier", "own"}, {"Key", Array{1, 2}}};
    world.write("user/Applications/A.app/PlugIns/P.appex/Info.plist", Dictionary{{"QFBundleIdentifier", "bundle"},
                                                                                 {"QFBundleVersion", 42},
                                                                                 {"QFBundleName", "Short"},
                                                                                 {"QFBundleDisplayName", "Long name"},
                                                                                 {"KXExtension", description}});
    world.write("user/Applications/A.app/PlugIns/P.appex/Entitlements.plist", Dictionary{{"e", true}});
    auto& workspace = world.start();
    const auto plugIn = world.at("user/Applications/A.app/PlugIns/P.appex");
    ASSERT_TRUE(plugIn);
    EXPECT_EQ(plugIn->pluginIdentifier(), "own");
    EXPECT_EQ(plugIn->originalIdentifier(), "bundle");
    EXPECT_EQ(plugIn->bundleIdentifier(), "bundle");
    EXPECT_EQ(plugIn->bundleVersion(), "42");
    EXPECT_EQ(plugIn->localizedName(), "Long name");
    EXPECT_EQ(plugIn->localizedShortName(), "Short");
    EXPECT_EQ(plugIn->entitlements(), (Dictionary{{"e", true}}));
    EXPECT_EQ(plugIn->containingBundle()->application->localizedName(), "App");
    EXPECT_EQ(plugIn->containingBundle()->application->bundleIdentifier(), "app");
    // Maybe another record by now: files this young are looked at once more.
    EXPECT_EQ(workspace.plugin(plugIn->pluginUUID())->pluginIdentifier(), "own");
    EXPECT_EQ(plugIn->pluginDictionary(), description);
    workspace.clearSchemaCaches();
    EXPECT_EQ(plugIn->pluginDictionary(), description);
    struct stat status {};
    const std::string container = plugIn->dataContainerPath().value_or("");
    EXPECT_EQ(container, world.root / "state/containers/own");
    ASSERT_EQ(::stat((container + "/tmp").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
}

TEST(Scan, GivesAMultiplexedBundleOneRecordForEachIdentifier) {
    Installation world;
    const Dictionary multiple{{"z", Dictionary{{"n", 1}}}, {"b", Dictionary{{"n", 2}}}, {"bad", "text"}};
    const std::string path =
        world.plugIn("user/Applications/A.app/PlugIns/P.appex", "bundle", {{"Multiple", multiple}});
    auto& workspace = world.start();
    EXPECT_THAT(world.identifiers(), ElementsAre("b", "z"));
    EXPECT_EQ(workspace.pluginAtPath(path)->pluginIdentifier(), "b");
    const auto both = *workspace.installedPlugins();
    EXPECT_NE(both[0]->pluginUUID(), both[1]->pluginUUID());
    EXPECT_EQ(both[1]->pluginDictionary(), (Dictionary{{"n", 1}}));
    EXPECT_EQ(both[1]->originalIdentifier(), "bundle");
    EXPECT_THAT(world.log(), ElementsAre(HasSubstr(path)));
}

TEST(Scan, PlaceholderIsReadAnew) {
    Installation world;
    world.plugIn("user/Applications/A.app/PlugIns/P.appex", "a");
    auto& workspace = world.start();
    const auto application = workspace.applicationAtPath(world.root / "user/Applications/A.app");
    EXPECT_FALSE(application->isPlaceholder());
    world.writeText("user/Applications/A.app/.placeholder", "");
    EXPECT_TRUE(application->isPlaceholder());
    world.remove("user/Applications/A.app/.placeholder");
    EXPECT_FALSE(application->isPlaceholder());
}

TEST(Scan, FollowsLinksOnlyWithinTheirVolume) {
    Installation world;
    world.plugIn("elsewhere/Out.app/PlugIns/P.appex", "out");
    world.plugIn("user/Store/In.app/PlugIns/P.appex", "in");
    world.plugIn("user/Applications/A.app/PlugIns/P.appex", "a");
    const auto link = [&](const char* target, const char* name) { fs::create_symlink(target, world.root / name); };
    link("../../elsewhere/Out.app", "user/Applications/Out.app");
    link("../Store/In.app", "user/Applications/In.app");
    link(".", "user/Applications/loop");
    link("loop2", "user/Applications/loop2");
    link("../../user", "user/Applications/up");
    link("A.app", "user/Applications/Twice.app");
    link("../../../../elsewhere/Out.app/PlugIns/P.appex", "user/Applications/A.app/PlugIns/Q.appex");
    world.plugIn("user/Applications/B.app/PlugIns/P.appex", "b");
    fs::remove(world.root / "user/Applications/B.app/PlugIns/P.appex/Info.plist");
    link("../../../A.app/PlugIns/P.appex/Info.plist", "user/Applications/B.app/PlugIns/P.appex/Info.plist");
    world.start();
    EXPECT_THAT(world.identifiers(), ElementsAre("a", "in"));
    EXPECT_TRUE(world.at("user/Store/In.app/PlugIns/P.appex"));
}

TEST(Scan, ABadBundleIsOneLineInTheLogAndOnePlugInLess) {
    Installation world;
    const std::string folder = "user/Applications/A.app/PlugIns/";
    world.plugIn(folder + "good.appex", "good");
    fs::create_directories(world.root / (folder + "nothing.appex"));
    EXPECT_THAT(world.start().installedPlugins()->size(), 1U);
    EXPECT_THAT(world.log(), IsEmpty());

    const std::pair<std::string, Value> kBundles[] = {
        {"noIdentifier", Dictionary{{"KXExtension", Dictionary{}}}},
        {"emptyIdentifier", info("")},
        {"longIdentifier", info(std::string(10 << 10, 'x'))},
        {"identifierOfAnotherKind", Dictionary{{"QFBundleIdentifier", 7}, {"KXExtension", Dictionary{}}}},
        {"noDictionary", Array{"QFBundleIdentifier"}},
        {"multipleIsNoDictionary", info("x", {{"Multiple", "x"}})},
    };
    for (const auto& [name, content] : kBundles) world.write(folder + name + "/Info.plist", content);
    world.writeText(folder + "notAPropertyList/Info.plist", "<plist");
    fs::create_directories(world.root / (folder + "pipe"));
    ASSERT_EQ(::mkfifo((world.root / (folder + "pipe/Info.plist")).c_str(), 0600), 0);
    world.writeText(folder + "huge/Info.plist", "");
    fs::resize_file(world.root / (folder + "huge/Info.plist"), std::uintmax_t{1} << 40);
    world.start();
    EXPECT_THAT(world.identifiers(), ElementsAre("good"));
    auto lines = world.log();
    EXPECT_EQ(lines.size(), std::size(kBundles) + 3) << testing::PrintToString(lines);

    world.plugIn(folder + "separators", "../../x/y");  // odd, but an identifier
    world.start();
    EXPECT_THAT(world.identifiers(), ElementsAre("good", "../../x/y"));
    EXPECT_THAT(world.log(), IsEmpty());  // what was bad and has not changed
    EXPECT_TRUE(fs::exists(world.root / "state/containers/%2E%2E%2F..%2Fx%2Fy/tmp") ||
                fs::exists(*world.at(folder + "separators")->dataContainerPath()));
}

TEST(Scan, EntitlementsThatAreNotHonouredAreEmptyAndOneLine) {
    Installation world;
    const std::string path = "user/Applications/A.app/PlugIns/P.appex";
    world.plugIn(path, "a");
    world.write(path + "/Entitlements.plist", Dictionary{{"e", true}});
    ASSERT_EQ(::chmod((world.root / (path + "/Entitlements.plist")).c_str(), 0666), 0);
    world.start();
    EXPECT_EQ(world.at(path)->entitlements(), Dictionary{});
    EXPECT_THAT(world.log(), ElementsAre(HasSubstr(path)));
    world.start();
    EXPECT_THAT(world.log(), IsEmpty());
}

TEST(Scan, WithoutADataContainerThePlugInIsThereAllTheSame) {
    Installation world;
    world.plugIn("system/PlugIns/A", "a");
    world.plugIn("system/PlugIns/B", "b");
    world.writeText("state/containers", "in the way");
    world.start();
    EXPECT_EQ(world.at("system/PlugIns/A")->dataContainerPath(), std::nullopt);
    EXPECT_EQ(world.at("system/PlugIns/B")->dataContainerPath(), std::nullopt);
    EXPECT_EQ(world.log().size(), 1U);
    world.remove("state/containers");
    const std::string container = world.at("system/PlugIns/A")->dataContainerPath().value_or("none");
    EXPECT_TRUE(std::filesystem::is_directory(container + "/tmp")) << container;
}

}  // namespace
}  // namespace dravo
