#include "Velto/VTBundle.h"
#include "tests/support/Words.h"

namespace {

class BundleTest : public testing::Test {
protected:
    BundleTest() { fs::permissions(directory_.write("A.app/run", "#!/bin/sh\n"), fs::perms::owner_all); }

    const support::TemporaryDirectory directory_;
    const std::string app_ = directory_ / "A.app";
    const Dictionary sound_{{"QFBundleIdentifier", "halvern.a"}, {"QFBundleExecutable", "run"}};
};

TEST_F(BundleTest, ShowsWhereThingsAre) {
    directory_.writeList("A.app/Info.plist", sound_);
    for (const auto& bundle : {VTBundle::initWithURL(app_), VTBundle::initWithExecutableURL(app_ + "/run")}) {
        EXPECT_EQ(bundle->path(), app_);
        EXPECT_EQ(bundle->url(), app_);
        EXPECT_EQ(bundle->bundleIdentifier(), "halvern.a");
        EXPECT_EQ(bundle->executablePath(), app_ + "/run");
        EXPECT_EQ(bundle->supportPath(), app_);
        EXPECT_EQ(bundle->plugInsPath(), app_ + "/PlugIns");
    }
    EXPECT_EQ(VTBundle::initWithExecutablePath(app_)->bundleIdentifier(), "halvern.a") << "opened as a directory";
}

TEST_F(BundleTest, MakesDoWithLess) {
    const auto nothing = VTBundle::initWithExecutablePath(directory_.write("elsewhere/run", ""));
    EXPECT_FALSE(nothing->path() || nothing->executablePath() || nothing->plugInsPath() || nothing->bundleIdentifier());
    directory_.writeList("A.app/Info.plist", Dictionary{{"QFBundleIdentifier", true}});
    const auto bundle = VTBundle::initWithPath(app_);
    EXPECT_EQ(bundle->bundleIdentifier(), std::nullopt);
    EXPECT_EQ(bundle->executablePath(), app_);
}

}  // namespace
