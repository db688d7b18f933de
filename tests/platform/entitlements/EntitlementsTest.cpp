#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include <gtest/gtest.h>

#include "platform/entitlements/Entitlements.h"
#include "platform/paths/Paths.h"
#include "tests/support/TemporaryDirectory.h"

namespace entitlements {
namespace {

constexpr char kList[] =
    "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
    "<key>halvern.private.velto.manager</key><true/><key>halvern.developer.velto.hosts</key><string>x</string>"
    "</dict></plist>";
const value::Dictionary kPublic{{"halvern.developer.velto.hosts", "x"}};
const value::Dictionary kAll{{"halvern.private.velto.manager", true}, {"halvern.developer.velto.hosts", "x"}};

class Entitlements : public testing::Test {
protected:
    Entitlements() {
        paths::Directories directories;
        directories.systemVolume = root / "system";
        directories.privateRoot = true;
        paths::setDirectories(directories);
        mkdir(directories.systemVolume.c_str(), 0755);
    }

    // A bundle with the list in it, at a place below the root.
    std::string bundle(const std::string& place) const {
        root.write(place + "/Entitlements.plist", kList);
        chmod((root / place).c_str(), 0755);
        chmod((root / (place + "/Entitlements.plist")).c_str(), 0644);
        return root / place;
    }

    static value::Result<value::Dictionary> read(const std::string& path) {
        return ofBundle(file::UniqueFd{open(path.c_str(), O_RDONLY | O_DIRECTORY)}.get(), path);
    }

    const support::TemporaryDirectory root;
};

TEST_F(Entitlements, AreNotHonouredWhenAnybodyElseCouldHaveWrittenThem) {
    const struct {
        const char* name;
        std::function<int(const std::string& bundle, const std::string& file)> spoil;
        bool honoured;
    } rows[] = {
        {"as installed", [](const auto&, const auto&) { return 0; }, true},
        {"read-only", [](const auto&, const auto& file) { return chmod(file.c_str(), 0400); }, true},
        {"group writes the file", [](const auto&, const auto& file) { return chmod(file.c_str(), 0664); }, false},
        {"all write the file", [](const auto&, const auto& file) { return chmod(file.c_str(), 0646); }, false},
        {"group writes the bundle", [](const auto& path, const auto&) { return chmod(path.c_str(), 0775); }, false},
        {"another's file", [](const auto&, const auto& file) { return chown(file.c_str(), 4711, 0); }, false},
        {"another's bundle", [](const auto& path, const auto&) { return chown(path.c_str(), 4711, 0); }, false},
        {"a link",
         [](const auto&, const auto& file) {
             const std::string elsewhere = file + ".real";
             return rename(file.c_str(), elsewhere.c_str()) + symlink(elsewhere.c_str(), file.c_str());
         },
         false},
        {"a pipe", [](const auto&, const auto& file) { return unlink(file.c_str()) + mkfifo(file.c_str(), 0600); },
         false},
        {"a directory", [](const auto&, const auto& file) { return unlink(file.c_str()) + mkdir(file.c_str(), 0700); },
         false},
        {"not a list", [](const auto&, const auto& file) { return truncate(file.c_str(), 30); }, false},
    };
    for (const auto& row : rows) {
        const std::string path = bundle("system/" + std::string{row.name} + ".app");
        if (row.spoil(path, path + "/Entitlements.plist") != 0) {
            EXPECT_NE(geteuid(), 0U) << row.name;  // only root gives files away
            continue;
        }
        const auto found = read(path);
        ASSERT_EQ(found.ok(), row.honoured) << row.name;
        EXPECT_EQ(found ? *found : value::Dictionary{}, row.honoured ? kAll : value::Dictionary{}) << row.name;
    }
}

TEST_F(Entitlements, PrivateNamesCountOnTheSystemVolumeOnly) {
    EXPECT_EQ(*read(bundle("system/Applications/A.app")), kAll);
    EXPECT_EQ(*read(bundle("user/Applications/A.app")), kPublic);
    EXPECT_EQ(*read(bundle("system2/A.app")), kPublic) << "beside the volume, under a name that begins like its own";

    const std::string outside = bundle("user/B.app");
    ASSERT_EQ(symlink(outside.c_str(), (root / "system/B.app").c_str()), 0);
    EXPECT_EQ(*read(root / "system/B.app"), kPublic) << "a link on the volume to a bundle elsewhere";

    const std::string system = bundle("system/C.app");
    const file::UniqueFd other{open(outside.c_str(), O_RDONLY | O_DIRECTORY)};
    EXPECT_EQ(*ofBundle(other.get(), system), kPublic) << "another directory than lies at the path";
}

TEST_F(Entitlements, PrivateNamesNeedTheSystemAsOwnerOutsideAPrivateRoot) {
    if (geteuid() != 0) GTEST_SKIP() << "only root gives files away";
    const std::string path = bundle("system/A.app");
    auto directories = paths::directories();
    directories.privateRoot = false;
    paths::setDirectories(directories);
    EXPECT_EQ(*read(path), kAll);
    ASSERT_EQ(chown(path.c_str(), 4711, 0), 0);
    ASSERT_EQ(chmod(root.path().c_str(), 0755), 0);
    ASSERT_EQ(seteuid(4711), 0);
    const auto asItsUser = read(path);
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(*asItsUser, kPublic);
}

TEST_F(Entitlements, OfAPeerAreReadOnceAndTheSameAnswerStays) {
    const auto peer = [&](const std::string& path) {
        auto identity = std::make_shared<mox::PeerIdentity>();
        identity->executablePath = path + "/main";
        identity->bundlePath = path;
        identity->bundleDirectory = file::UniqueFd{open(path.c_str(), O_RDONLY | O_DIRECTORY)};
        return identity;
    };
    const std::string path = bundle("system/A.app");
    const SecurityTask task{peer(path)};
    EXPECT_EQ(*task.value("halvern.private.velto.manager"), value::Value{true});
    root.write("system/A.app/Entitlements.plist", "no list");
    EXPECT_EQ(*task.value("halvern.developer.velto.hosts"), value::Value{"x"});
    EXPECT_EQ(*task.value("absent"), std::nullopt);

    const SecurityTask spoilt{peer(path)};
    EXPECT_FALSE(spoilt.value("absent"));
    ASSERT_EQ(unlink((path + "/Entitlements.plist").c_str()), 0);
    EXPECT_FALSE(spoilt.value("absent")) << "the error is kept as well";
    EXPECT_EQ(*SecurityTask{peer(path)}.value("absent"), std::nullopt) << "no file is no error";

    const std::string other = bundle("system/B.app");
    auto unknown = peer(other);
    unknown->executablePath.reset();
    EXPECT_EQ(*SecurityTask{unknown}.value("halvern.private.velto.manager"), std::nullopt);
    EXPECT_EQ(*SecurityTask{std::make_shared<mox::PeerIdentity>()}.value("x"), std::nullopt);
}

}  // namespace
}  // namespace entitlements
