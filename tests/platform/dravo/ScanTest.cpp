#include "tests/platform/dravo/Installation.h"

namespace dravo {
namespace {

constexpr char kPlugIn[] = "user/Applications/A.app/PlugIns/P.appex";

TEST(Scan, FindsPlugInsOfApplicationsOnBothVolumesAndTheSystemsOwn) {
    Installation world;
    const struct {
        const char *identifier, *path, *application, *container;
    } rows[] = {
        {"c.system", "system/Applications/C.app/PlugIns/P.appex", "system/Applications/C.app", ""},
        {"d.lone", "system/PlugIns/D.bundle", "", ""},
        {"a.direct", "user/Applications/A.app/PlugIns/P.appex", "user/Applications/A.app", ""},
        {"b.contained", "user/Applications/B0F4/B.app/PlugIns/P.appex", "user/Applications/B0F4/B.app",
         "user/Applications/B0F4"},
    };
    for (const auto& row : rows) world.plugIn(row.path, row.identifier);
    for (const char* nowhere : {"user/PlugIns/E", "user/Applications/F/G/H.app/PlugIns/P.appex",
                                "user/Applications/A.app/PlugIns/Sub/Q.appex"}) {
        world.plugIn(nowhere, nowhere);
    }
    auto& workspace = world.start();
    EXPECT_EQ(world.identifiers(), "c.system d.lone a.direct b.contained");
    const auto full = [&](const char* path) { return *path == '\0' ? "" : world.root / path; };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.identifier);
        const auto plugIn = world.at(row.path);
        EXPECT_EQ(plugIn->onSystemPartition(), row.path[0] == 's');
        const auto around = plugIn->containingBundle();
        ASSERT_EQ(around ? around->bundlePath : "", full(row.application));
        if (!around) continue;
        EXPECT_EQ(around->application->bundleContainerPath().value_or(""), full(row.container));
        const auto within = workspace.pluginsOf(*workspace.applicationAtPath(around->bundlePath));
        ASSERT_EQ(within.size(), 1U);
        // Maybe another record by now: files this young are looked at once more.
        EXPECT_EQ(within.front()->pluginUUID(), plugIn->pluginUUID());
    }
}

TEST(Scan, TellsWhatABundleSaysOfItself) {
    Installation world;
    const Dictionary description{{"KXExtensionIdentifier", "own"}, {"Key", Array{1, 2}}};
    world.write("user/Applications/A.app/Info.plist", Dictionary{{"QFBundleName", "App"}});
    world.write(kPlugIn + "/Info.plist"s, Dictionary{{"QFBundleIdentifier", "bundle"},
                                                     {"QFBundleVersion", 42},
                                                     {"QFBundleName", "Short"},
                                                     {"QFBundleDisplayName", "Long name"},
                                                     {"KXExtension", description}});
    world.write(kPlugIn + "/Entitlements.plist"s, Dictionary{{"e", true}});
    auto& workspace = world.start();
    const auto plugIn = world.at(kPlugIn);
    EXPECT_EQ(plugIn->pluginIdentifier(), "own");
    EXPECT_EQ(plugIn->originalIdentifier(), "bundle");
    EXPECT_EQ(plugIn->bundleVersion(), "42");
    EXPECT_EQ(plugIn->localizedName(), "Long name");
    EXPECT_EQ(plugIn->localizedShortName(), "Short");
    EXPECT_EQ(plugIn->entitlements(), (Dictionary{{"e", true}}));
    EXPECT_EQ(plugIn->containingBundle()->application->localizedName(), "App");
    EXPECT_EQ(workspace.plugin(plugIn->pluginUUID())->pluginIdentifier(), "own");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(plugIn->pluginDictionary(), description);
        workspace.clearSchemaCaches();
    }
    struct stat status {};
    EXPECT_EQ(plugIn->dataContainerPath(), world.root / "state/containers/own");
    ASSERT_EQ(::stat((world.root / "state/containers/own/tmp").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
}

TEST(Scan, PlaceholdersFollowTheDiskWatchedOrPolled) {
    for (const bool watched : {true, false}) {
        Installation world;
        world.plugIn("user/Applications/A.app/PlugIns/P.appex", "a");
        auto& workspace = world.start({watched, std::chrono::milliseconds{20}});
        const auto isPlaceholder = [&] {
            return workspace.applicationAtPath(world.root / "user/Applications/A.app")->isPlaceholder();
        };
        world.settle();
        EXPECT_FALSE(isPlaceholder());
        world.writeText("user/Applications/A.app/.placeholder", "");
        EXPECT_TRUE(world.comes(isPlaceholder)) << watched;
        std::this_thread::sleep_for(std::chrono::milliseconds{100});  // the look that the change leads to
        world.settle();
        EXPECT_TRUE(isPlaceholder()) << watched;
        world.remove("user/Applications/A.app/.placeholder");
        EXPECT_TRUE(world.comes([&] { return !isPlaceholder(); })) << watched;
    }
}

TEST(Scan, FollowsLinksOnlyWithinTheirVolume) {
    Installation world;
    world.plugIn("elsewhere/Out.app/PlugIns/P.appex", "out");
    world.plugIn("user/Store/In.app/PlugIns/P.appex", "in");
    world.plugIn(kPlugIn, "a");
    fs::create_directories(world.root / "user/Applications/B.app/PlugIns/P.appex");
    const std::pair<const char*, const char*> links[] = {
        {"Out.app", "../../elsewhere/Out.app"},
        {"In.app", "../Store/In.app"},
        {"loop", "."},
        {"loop2", "loop2"},
        {"up", "../../user"},
        {"Twice.app", "A.app"},
        {"A.app/PlugIns/Q.appex", "../../../../elsewhere/Out.app/PlugIns/P.appex"},
        {"B.app/PlugIns/P.appex/Info.plist", "../../../A.app/PlugIns/P.appex/Info.plist"},
    };
    for (const auto& [name, target] : links) fs::create_symlink(target, world.root / ("user/Applications/"s + name));
    world.start();
    EXPECT_EQ(world.identifiers(), "a in");
    EXPECT_TRUE(world.at("user/Store/In.app/PlugIns/P.appex"));
}

TEST(Scan, ABadBundleIsOneLineInTheLogAndOnePlugInLess) {
    Installation world;
    const std::string folder = "user/Applications/A.app/PlugIns/", list = "/Info.plist";
    world.plugIn(folder + "good", "good");
    world.plugIn(folder + "separators", "../../x/y");  // odd, but an identifier
    world.plugIn(folder + "several", "bundle",
                 {{"Multiple", Dictionary{{"z", Dictionary{{"n", 1}}}, {"b", Dictionary{}}, {"bad", 1}}}});
    fs::create_directories(world.root / (folder + "nothing"));
    const auto info = [](const Value& identifier, const Dictionary& description = {}) {
        return Dictionary{{"QFBundleIdentifier", identifier}, {"KXExtension", description}};
    };
    const std::pair<const char*, Value> kBundles[] = {
        {"noIdentifier", Dictionary{{"KXExtension", Dictionary{}}}},
        {"emptyIdentifier", info("")},
        {"longIdentifier", info(std::string(10 << 10, 'x'))},
        {"identifierOfAnotherKind", info(7)},
        {"noDictionary", Array{"QFBundleIdentifier"}},
        {"multipleIsNoDictionary", info("x", {{"Multiple", "x"}})},
    };
    for (const auto& [name, content] : kBundles) world.write(folder + name + list, content);
    world.writeText(folder + "notAPropertyList" + list, "<plist");
    fs::create_directories(world.root / (folder + "pipe"));
    ASSERT_EQ(::mkfifo((world.root / (folder + "pipe" + list)).c_str(), 0600), 0);
    world.writeText(folder + "huge" + list, "");
    fs::resize_file(world.root / (folder + "huge" + list), std::uintmax_t{1} << 40);
    // Entitlements that are not honoured are none, and one line, too.
    world.write(folder + "good/Entitlements.plist", Dictionary{{"e", true}});
    fs::permissions(world.root / (folder + "good/Entitlements.plist"), fs::perms{0666});
    auto& workspace = world.start();
    EXPECT_EQ(world.identifiers(), "good ../../x/y b z");
    const auto first = world.at(folder + "several"), second = workspace.installedPlugins()->back();
    EXPECT_EQ(first->pluginIdentifier() + " of " + first->originalIdentifier(), "b of bundle");
    EXPECT_NE(first->pluginUUID(), second->pluginUUID());
    EXPECT_EQ(second->pluginDictionary(), (Dictionary{{"n", 1}}));
    EXPECT_EQ(world.at(folder + "good")->entitlements(), Dictionary{});
    world.settle();  // containers are made behind the first answer
    EXPECT_TRUE(fs::exists(world.root / "state/containers/%2E%2E%2F..%2Fx%2Fy/tmp"));
    EXPECT_THAT(world.log.take(), SizeIs(std::size(kBundles) + 5));
    world.start();
    EXPECT_THAT(world.log.take(), IsEmpty()) << "what was bad and has not changed";
}

TEST(Scan, WhatClaimsTooMuchIsRefusedByKeyAndNumberOnceUntilItChanges) {
    Installation world;
    const auto list = [](int size) { return Array{Array::Storage(static_cast<std::size_t>(size), "x")}; };
    const auto rule = [](int size) {
        Dictionary::Builder keys;
        for (int i = 0; i < size; ++i) keys.set(std::to_string(i), 1);
        return std::move(keys).build();
    };
    const auto attributes = [](const Value& value) {
        return Dictionary{{"KXExtensionAttributes", Dictionary{{"k", value}}}};
    };
    const struct {
        const char* name;
        Dictionary sound, tooMuch;  // of KXExtension
        const char* refusal;
    } rows[] = {
        {"list", attributes(list(512)), attributes(list(513)), "\"k\" has 513 elements, more than 512"},
        {"shared", {{"Shared", list(512)}}, {{"Shared", list(600)}}, "\"Shared\" has 600 elements, more than 512"},
        {"text", attributes(std::string(65'536, 'x')), attributes(Array{std::string(65'537, 'x')}),
         "\"k\" has 65537 bytes, more than 65536"},
        {"rule", attributes(rule(512)), attributes(rule(513)), "\"k\" has 513 entries, more than 512"},
        {"several",
         {{"Multiple", rule(1024)}},
         {{"Multiple", rule(1025)}},
         "\"Multiple\" has 1025 plug-ins, more than 1024"},
        {"bytes", {{"x", std::string(250'000, 'x')}}, {{"x", std::string(265'000, 'x')}}, "File too large"},
    };
    for (const auto& row : rows) {
        world.plugIn("system/PlugIns/"s + row.name, row.name, row.sound);
        world.plugIn("system/PlugIns/"s + row.name + "-not", row.name, row.tooMuch);
    }
    world.plugIn("system/PlugIns/replacing", "replacing");
    world.write("system/PlugIns/replacing/Entitlements.plist", Dictionary{{"replaces", list(513)}});
    world.start();
    EXPECT_EQ(world.identifiers(), "bytes list rule shared text");
    const auto lines = world.log.take();
    for (const auto& row : rows) EXPECT_THAT(lines, Contains(HasSubstr(row.refusal))) << row.name;
    EXPECT_THAT(lines, Contains(HasSubstr("Entitlements.plist: \"replaces\" has 513")));
    world.settle();
    world.start();
    EXPECT_THAT(world.log.take(), IsEmpty()) << "what was refused and has not changed";
    world.plugIn("system/PlugIns/list-not", "sound by now");
    world.start();
    EXPECT_THAT(world.identifiers(), HasSubstr("sound by now"));
}

TEST(Scan, WithoutADataContainerThePlugInIsThereAllTheSame) {
    Installation world;
    for (const char* name : {"a", "b"}) world.plugIn("system/PlugIns/"s + name, name);
    world.writeText("state/containers", "in the way");
    world.start();
    world.settle();
    for (const char* name : {"a", "b"}) EXPECT_FALSE(world.at("system/PlugIns/"s + name)->dataContainerPath());
    EXPECT_THAT(world.log.take(), SizeIs(1));
    world.remove("state/containers");
    EXPECT_EQ(world.at("system/PlugIns/a")->dataContainerPath(), world.root / "state/containers/a");
    EXPECT_TRUE(fs::is_directory(world.root / "state/containers/a/tmp"));
}

}  // namespace
}  // namespace dravo
