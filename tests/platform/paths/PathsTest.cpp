#include <cstdlib>
#include <filesystem>
#include <optional>

#include <gtest/gtest.h>

#include "platform/paths/Paths.h"

namespace paths {
namespace {

struct Environment {
    const char* root;
    const char* home;
    const char* xdg;  // of all four variables
};

Directories readIn(const Environment& environment) {
    const auto assign = [](const char* name, const char* value) {
        if (value == nullptr) {
            ::unsetenv(name);
        } else {
            ::setenv(name, value, 1);
        }
    };
    assign("HALVERN_ROOT", environment.root);
    assign("HOME", environment.home);
    for (const char* name : {"XDG_RUNTIME_DIR", "XDG_STATE_HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME"}) {
        assign(name, environment.xdg);
    }
    return readDirectories();
}

TEST(Paths, ARootOfOnesOwnOverrulesTheRest) {
    const Directories all = readIn({"/srv/world//", "/home/me", "/xdg"});
    EXPECT_TRUE(all.privateRoot);
    EXPECT_EQ(all.runtime, "/srv/world/run");
    EXPECT_EQ(all.state, "/srv/world/state");
    EXPECT_EQ(all.config, "/srv/world/config");
    EXPECT_EQ(all.userVolume, "/srv/world/user");
    EXPECT_EQ(all.systemVolume, "/srv/world/system");
    EXPECT_EQ(readIn({"world", "/home/me", "/xdg"}).state, std::filesystem::current_path().string() + "/world/state");
}

TEST(Paths, OtherwiseTheBaseDirectoriesHold) {
    const Directories xdg = readIn({"", "/home/me", "/xdg/"});
    EXPECT_FALSE(xdg.privateRoot);
    EXPECT_EQ(xdg.runtime, "/xdg/halvern");
    EXPECT_EQ(xdg.config, "/xdg/halvern");
    EXPECT_EQ(xdg.systemVolume, "/usr/share/halvern");
    const Directories home = readIn({nullptr, "/home/me", "relative/is/ignored"});
    EXPECT_EQ(home.state, "/home/me/.local/state/halvern");
    EXPECT_EQ(home.config, "/home/me/.config/halvern");
    EXPECT_EQ(home.userVolume, "/home/me/.local/share/halvern");
    EXPECT_EQ(readIn({nullptr, nullptr, nullptr}).state.front(), '/');
}

TEST(Paths, TestsMayReplaceThem) {
    Directories other;
    other.state = "/elsewhere";
    setDirectories(other);
    EXPECT_EQ(directories().state, "/elsewhere");
}

}  // namespace
}  // namespace paths
