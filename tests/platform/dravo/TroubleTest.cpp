#include "tests/platform/dravo/Installation.h"
#include "tests/support/Mounts.h"

// File systems that are full or broken, real ones. A program of its own: its threads all start in a namespace of
// mounts.
namespace dravo {
namespace {

constexpr char kPlugIn[] = "user/Applications/A.app/PlugIns/P.appex";
const bool kOwnMounts = support::enterMountNamespace();

TEST(Trouble, AFullDiskRefusesRegistrationsKeepsEveryUuidAndIsMadeUpForLater) {
    if (!kOwnMounts) GTEST_SKIP() << "no namespaces to be had here";
    Installation world;
    const support::Mount state = support::Mount::small(world.root / "state", "256k");
    world.plugIn(kPlugIn, "a");
    const std::string kept = world.plugIn("elsewhere/kept", "kept");
    const std::string refused = world.plugIn("elsewhere/refused", "refused");
    auto* workspace = &world.start();
    const auto witness = world.witness();
    ASSERT_TRUE(workspace->registerPlugin(kept, kAnybody));
    EXPECT_EQ(witness->told("+kept"), "+kept");
    const value::Uuid uuid = workspace->pluginAtPath(kept)->pluginUUID();
    world.log.take();

    const std::string ballast = state.fill();
    EXPECT_FALSE(workspace->unregisterPlugin(kept));
    EXPECT_FALSE(workspace->registerPlugin(refused, kAnybody));
    EXPECT_THAT(world.log.take(), ElementsAre(HasSubstr("cannot save what is installed: ")));
    EXPECT_EQ(witness->told(""), "") << "nothing happened";
    EXPECT_EQ(workspace->pluginAtPath(kept)->pluginUUID(), uuid);

    world.plugIn("user/Applications/B.app/PlugIns/P", "b");
    EXPECT_EQ(witness->told("+b"), "+b");
    world.settle();
    const value::Uuid unsaved = world.at("user/Applications/B.app/PlugIns/P")->pluginUUID();
    fs::remove(ballast);
    EXPECT_TRUE(workspace->registerPlugin(refused, kAnybody));
    EXPECT_THAT(world.log.take(), Contains("what is installed is saved again"));

    workspace = &world.start();
    EXPECT_EQ(world.identifiers(), "kept refused a b");
    EXPECT_EQ(workspace->pluginAtPath(kept)->pluginUUID(), uuid);
    EXPECT_EQ(world.at("user/Applications/B.app/PlugIns/P")->pluginUUID(), unsaved);
    world.stop();
}

TEST(Trouble, WhatCannotBeReadForNowStaysInstalledOverRestartsToo) {
    if (!kOwnMounts) GTEST_SKIP() << "no namespaces to be had here";
    Installation world;
    const std::string registered = world.plugIn("elsewhere/R.app/PlugIns/R", "r");
    world.plugIn(kPlugIn, "a", {{"KXExtensionPointIdentifier", "p"}});
    world.write("system/SDKs/p.plist", Dictionary{{"k", "1"}});
    world.write("elsewhere/R.app/Info.plist", Dictionary{{"QFBundleName", "Name"}});
    auto* workspace = &world.start();
    const auto witness = world.witness();
    ASSERT_TRUE(workspace->registerPlugin(registered, kAnybody));
    EXPECT_EQ(witness->told("+r"), "+r");
    const value::Uuid uuid = world.at(kPlugIn)->pluginUUID();
    world.log.take();
    {
        // Reading the start of one's own memory is an input/output error.
        const auto broken = support::Mount::bind("/proc/self/mem", (world.root / kPlugIn) + "/Info.plist");
        const auto others = support::Mount::bind("/proc/self/mem", world.root / "elsewhere/R.app/Info.plist");
        const auto sdk = support::Mount::bind("/proc/self/mem", world.root / "system/SDKs/p.plist");
        world.writeText("system/SDKs/other.plist", "");
        world.writeText(std::string{kPlugIn} + "/new", "");
        world.writeText("elsewhere/R.app/PlugIns/R/new", "");
        for (std::size_t lines = 0; lines < 2;) lines += world.log.take().size();
        world.settle();
        EXPECT_EQ(world.identifiers(), "r a");
        world.plugIn("user/Applications/A.app/PlugIns/Sibling", "sibling");
        EXPECT_EQ(witness->told("+sibling"), "+sibling") << "nothing is taken from the others";
        workspace = &world.start();
        EXPECT_EQ(world.identifiers(), "r a sibling");
        EXPECT_EQ(world.at(kPlugIn)->pluginUUID(), uuid);
        workspace->addObserver(witness);
        EXPECT_THAT(world.log.take(), SizeIs(2)) << "one line for each";
    }
    world.start().addObserver(witness);
    EXPECT_EQ(world.at(kPlugIn)->pluginUUID(), uuid);
    EXPECT_EQ(world.at("elsewhere/R.app/PlugIns/R")->containingBundle()->application->localizedName(), "Name");
    world.settle();
    EXPECT_EQ(witness->told(""), "");
}

}  // namespace
}  // namespace dravo
