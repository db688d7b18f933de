#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "Velto/VTBundle.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

class BundleTest : public testing::Test {
protected:
    BundleTest() {
        std::filesystem::permissions(directory_.write("A.app/run", "#!/bin/sh\n"), std::filesystem::perms::owner_all);
    }
    void writeInfo(const std::string& entries) const {
        directory_.write("A.app/Info.plist", "<plist version=\"1.0\"><dict>" + entries + "</dict></plist>");
    }

    const support::TemporaryDirectory directory_;
    const std::string app_ = directory_ / "A.app";
    const std::string sound_ =
        "<key>QFBundleIdentifier</key><string>halvern.a</string>"
        "<key>QFBundleExecutable</key><string>run</string>";
};

TEST_F(BundleTest, ShowsWhereThingsAre) {
    writeInfo(sound_);
    for (const auto& bundle : {VTBundle::initWithURL(app_), VTBundle::initWithExecutableURL(app_ + "/run")}) {
        EXPECT_EQ(bundle->path(), app_);
        EXPECT_EQ(bundle->url(), app_);
        EXPECT_EQ(bundle->bundleIdentifier(), "halvern.a");
        EXPECT_EQ(bundle->executablePath(), app_ + "/run");
        EXPECT_EQ(bundle->supportPath(), app_);
        EXPECT_EQ(bundle->plugInsPath(), app_ + "/PlugIns");
    }
}

TEST_F(BundleTest, AnExecutableOutsideAnyBundleIsOpenedAsADirectory) {
    writeInfo(sound_);
    EXPECT_EQ(VTBundle::initWithExecutablePath(app_)->bundleIdentifier(), "halvern.a");
    const auto nothing = VTBundle::initWithExecutablePath(directory_.write("elsewhere/run", ""));
    EXPECT_EQ(nothing->path(), std::nullopt);
    EXPECT_EQ(nothing->executablePath(), std::nullopt);
    EXPECT_EQ(nothing->plugInsPath(), std::nullopt);
    EXPECT_EQ(nothing->bundleIdentifier(), std::nullopt);
}

TEST_F(BundleTest, MakesDoWithoutAnExecutableOrAnIdentifierThatIsText) {
    writeInfo("<key>QFBundleIdentifier</key><true/>");
    const auto bundle = VTBundle::initWithPath(app_);
    EXPECT_EQ(bundle->bundleIdentifier(), std::nullopt);
    EXPECT_EQ(bundle->executablePath(), app_);
}

}  // namespace
