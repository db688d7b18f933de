#include "platform/paths/Paths.h"
#include "tests/support/Words.h"

namespace {

TEST(Paths, FollowTheEnvironment) {
    const std::string here = fs::current_path();
    const struct {
        const char *root, *home, *xdg;  // the last for all four variables
        paths::Directories read;
    } rows[] = {
        {"/srv/world//",
         "/home/me",
         "/xdg",
         {"/srv/world/run", "/srv/world/state", "/srv/world/config", "/srv/world/user", "/srv/world/system", true}},
        {"w",
         "",
         "",
         {here + "/w/run", here + "/w/state", here + "/w/config", here + "/w/user", here + "/w/system", true}},
        {"",
         "/home/me",
         "/xdg/",
         {"/xdg/halvern", "/xdg/halvern", "/xdg/halvern", "/xdg/halvern", "/usr/share/halvern", false}},
        {"",
         "/home/me",
         "relative/is/ignored",
         {"", "/home/me/.local/state/halvern", "/home/me/.config/halvern", "/home/me/.local/share/halvern",
          "/usr/share/halvern", false}},
    };
    for (const auto& row : rows) {
        ::setenv("HALVERN_ROOT", row.root, 1);
        ::setenv("HOME", row.home, 1);
        for (const char* name : {"XDG_RUNTIME_DIR", "XDG_STATE_HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME"})
            ::setenv(name, row.xdg, 1);
        const paths::Directories read = paths::readDirectories();
        EXPECT_TRUE(row.read.runtime.empty() || read.runtime == row.read.runtime) << read.runtime;
        EXPECT_EQ(read.state, row.read.state);
        EXPECT_EQ(read.config, row.read.config);
        EXPECT_EQ(read.userVolume, row.read.userVolume);
        EXPECT_EQ(read.systemVolume, row.read.systemVolume);
        EXPECT_EQ(read.privateRoot, row.read.privateRoot);
    }
    ::unsetenv("HOME");
    EXPECT_TRUE(paths::readDirectories().state.starts_with('/'));
}

}  // namespace
