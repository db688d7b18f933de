#include "platform/paths/Paths.h"
#include "tests/support/Words.h"

namespace {

TEST(Paths, FollowTheEnvironment) {
    const std::string here = fs::current_path();
    const struct {
        const char *root, *home, *xdg;  // the last for all four variables
        Texts read;                     // runtime, where that is certain, state, config, user and system volume
    } rows[] = {
        {"/srv/w//",
         "/home/me",
         "/xdg",
         {"/srv/w/run", "/srv/w/state", "/srv/w/config", "/srv/w/user", "/srv/w/system"}},
        {"w", "", "", {here + "/w/run", here + "/w/state", here + "/w/config", here + "/w/user", here + "/w/system"}},
        {"", "/me", "/xdg/", {"/xdg/halvern", "/xdg/halvern", "/xdg/halvern", "/xdg/halvern", "/usr/share/halvern"}},
        {"",
         "/me",
         "relative/is/ignored",
         {"", "/me/.local/state/halvern", "/me/.config/halvern", "/me/.local/share/halvern", "/usr/share/halvern"}},
    };
    for (const auto& row : rows) {
        ::setenv("HALVERN_ROOT", row.root, 1);
        ::setenv("HOME", row.home, 1);
        for (const char* name : {"XDG_RUNTIME_DIR", "XDG_STATE_HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME"})
            ::setenv(name, row.xdg, 1);
        const paths::Directories read = paths::readDirectories();
        const std::string runtime = row.read[0].empty() ? "" : read.runtime;
        EXPECT_EQ((Texts{runtime, read.state, read.config, read.userVolume, read.systemVolume}), row.read);
        EXPECT_EQ(read.privateRoot, *row.root != '\0');
    }
    ::unsetenv("HOME");
    EXPECT_TRUE(paths::readDirectories().state.starts_with('/'));
}

}  // namespace
