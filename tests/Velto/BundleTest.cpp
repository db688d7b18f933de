#include "Velto/VTBundle.h"
#include "tests/support/Words.h"

TEST(BundleTest, ShowsWhereThingsAreAsFarAsTheyAre) {
    const support::TemporaryDirectory directory;
    const std::string app = directory / "A.app";
    fs::permissions(directory.write("A.app/run", "#!/bin/sh\n"), fs::perms::owner_all);
    directory.writeList("A.app/Info.plist", Dictionary{{"QFBundleIdentifier", "a"}, {"QFBundleExecutable", "run"}});
    for (const auto& bundle : {VTBundle::initWithURL(app), VTBundle::initWithExecutableURL(app + "/run")}) {
        EXPECT_EQ(bundle->path(), app);
        EXPECT_EQ(bundle->bundleIdentifier(), "a");
        EXPECT_EQ(bundle->executablePath(), app + "/run");
        EXPECT_EQ(bundle->supportPath(), app);
        EXPECT_EQ(bundle->plugInsPath(), app + "/PlugIns");
    }
    EXPECT_EQ(VTBundle::initWithExecutablePath(app)->bundleIdentifier(), "a") << "opened as a directory";
    const auto none = VTBundle::initWithExecutablePath(directory.write("elsewhere/run", ""));
    EXPECT_FALSE(none->path() || none->executablePath() || none->plugInsPath() || none->bundleIdentifier());
}
