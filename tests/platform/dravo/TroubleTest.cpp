#include "tests/platform/dravo/Installation.h"
#include "tests/support/Mounts.h"

// File systems that are full or broken, real ones. A program of its own: its threads all start in a namespace of
// mounts.
namespace dravo {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using value::Dictionary;

constexpr char kPlugIn[] = "user/Applications/A.app/PlugIns/P.appex";

class Trouble : public testing::Test {
protected:
    static void SetUpTestSuite() { hasMounts_ = support::enterMountNamespace(); }
    void SetUp() override {
        if (!hasMounts_) GTEST_SKIP() << "no namespaces to be had here";
    }

    Installation world;

private:
    static inline bool hasMounts_ = false;
};

TEST_F(Trouble, AFullDiskRefusesRegistrationsKeepsEveryUuidAndIsMadeUpForLater) {
    const support::Mount state = support::Mount::small(world.root / "state", "256k");
    world.plugIn(kPlugIn, "a");
    const std::string kept = world.plugIn("elsewhere/kept", "kept");
    const std::string refused = world.plugIn("elsewhere/refused", "refused");
    auto* workspace = &world.start();
    const auto witness = std::make_shared<Witness>();
    workspace->addObserver(witness);
    ASSERT_TRUE(workspace->registerPlugin(kept));
    EXPECT_THAT(witness->await(1), ElementsAre("+kept"));
    const value::Uuid uuid = workspace->pluginAtPath(kept)->pluginUUID();
    world.log();

    const std::string ballast = state.fill();
    EXPECT_FALSE(workspace->unregisterPlugin(kept));
    EXPECT_FALSE(workspace->registerPlugin(refused));
    EXPECT_THAT(world.log(), ElementsAre(HasSubstr("cannot save what is installed: ")));
    EXPECT_THAT(witness->await(0), IsEmpty()) << "nothing happened, so nobody was told";
    EXPECT_EQ(workspace->pluginAtPath(kept)->pluginUUID(), uuid);

    world.plugIn("user/Applications/B.app/PlugIns/P", "b");
    EXPECT_THAT(witness->await(1), ElementsAre("+b"));
    world.settle();
    const value::Uuid unsaved = world.at("user/Applications/B.app/PlugIns/P")->pluginUUID();
    std::filesystem::remove(ballast);
    EXPECT_TRUE(workspace->registerPlugin(refused));
    EXPECT_THAT(world.log(), testing::Contains("what is installed is saved again"));

    workspace = &world.start();
    EXPECT_THAT(world.identifiers(), ElementsAre("kept", "refused", "a", "b"));
    EXPECT_EQ(workspace->pluginAtPath(kept)->pluginUUID(), uuid);
    EXPECT_EQ(world.at("user/Applications/B.app/PlugIns/P")->pluginUUID(), unsaved);
    world.stop();
}

TEST_F(Trouble, WhatCannotBeReadForNowStaysInstalledOverRestartsToo) {
    const std::string registered = world.plugIn("elsewhere/R.app/PlugIns/R", "r");
    world.plugIn(kPlugIn, "a");
    world.write("elsewhere/R.app/Info.plist", Dictionary{{"QFBundleName", "Name"}});
    auto* workspace = &world.start();
    const auto witness = std::make_shared<Witness>();
    workspace->addObserver(witness);
    ASSERT_TRUE(workspace->registerPlugin(registered));
    EXPECT_THAT(witness->await(1), ElementsAre("+r"));
    const value::Uuid uuid = world.at(kPlugIn)->pluginUUID();
    world.log();
    {
        // Reading the start of one's own memory is an input/output error.
        const auto broken = support::Mount::bind("/proc/self/mem", (world.root / kPlugIn) + "/Info.plist");
        const auto others = support::Mount::bind("/proc/self/mem", world.root / "elsewhere/R.app/Info.plist");
        world.writeText(std::string{kPlugIn} + "/new", "");
        world.writeText("elsewhere/R.app/PlugIns/R/new", "");
        for (std::vector<std::string> lines; lines.size() < 2;) {
            for (const std::string& line : world.log()) lines.push_back(line);
        }
        world.settle();
        EXPECT_THAT(world.identifiers(), ElementsAre("r", "a"));
        world.plugIn("user/Applications/A.app/PlugIns/Sibling", "sibling");
        EXPECT_THAT(witness->await(1), ElementsAre("+sibling")) << "nothing is taken from the others";
        workspace = &world.start();
        EXPECT_THAT(world.identifiers(), ElementsAre("r", "a", "sibling"));
        EXPECT_EQ(world.at(kPlugIn)->pluginUUID(), uuid);
        workspace->addObserver(witness);
        EXPECT_THAT(world.log(), SizeIs(2)) << "one line for each";
    }
    world.start().addObserver(witness);
    EXPECT_EQ(world.at(kPlugIn)->pluginUUID(), uuid);
    EXPECT_EQ(world.at("elsewhere/R.app/PlugIns/R")->containingBundle()->application->localizedName(), "Name");
    EXPECT_THAT(witness->await(0), IsEmpty());
}

}  // namespace
}  // namespace dravo
