#include "platform/entitlements/Entitlements.h"
#include "tests/support/Words.h"

namespace entitlements {
namespace {

const Dictionary kPublic{{"halvern.developer.velto.hosts", "x"}};
const Dictionary kAll{{"halvern.private.velto.manager", true}, {"halvern.developer.velto.hosts", "x"}};

class Entitlements : public testing::Test {
protected:
    Entitlements() { fs::create_directory(root / "system"); }

    // A bundle with the list in it, at a place below the root.
    std::string bundle(const std::string& place) const {
        root.writeList(place + "/Entitlements.plist", kAll);
        chmod((root / place).c_str(), 0755);
        chmod((root / (place + "/Entitlements.plist")).c_str(), 0644);
        return root / place;
    }

    static value::Result<Dictionary> read(const std::string& path) {
        return ofBundle(file::UniqueFd{open(path.c_str(), O_RDONLY | O_DIRECTORY)}.get(), path);
    }

    const support::PrivateRoot root;
};

TEST_F(Entitlements, AreNotHonouredWhenAnybodyElseCouldHaveWrittenThem) {
    using Path = const std::string&;
    const struct {
        const char* name;
        int (*spoil)(Path bundle, Path file);
        bool honoured = false;
    } rows[] = {
        {"as installed", [](Path, Path) { return 0; }, true},
        {"read-only", [](Path, Path file) { return chmod(file.c_str(), 0400); }, true},
        {"group writes the file", [](Path, Path file) { return chmod(file.c_str(), 0664); }},
        {"all write the file", [](Path, Path file) { return chmod(file.c_str(), 0646); }},
        {"group writes the bundle", [](Path bundle, Path) { return chmod(bundle.c_str(), 0775); }},
        {"another's file", [](Path, Path file) { return chown(file.c_str(), 4711, 0); }},
        {"another's bundle", [](Path bundle, Path) { return chown(bundle.c_str(), 4711, 0); }},
        {"a link",
         [](Path, Path file) {
             const std::string elsewhere = file + ".real";
             return rename(file.c_str(), elsewhere.c_str()) + symlink(elsewhere.c_str(), file.c_str());
         }},
        {"a pipe", [](Path, Path file) { return unlink(file.c_str()) + mkfifo(file.c_str(), 0600); }},
        {"a directory", [](Path, Path file) { return unlink(file.c_str()) + mkdir(file.c_str(), 0700); }},
        {"not a list", [](Path, Path file) { return truncate(file.c_str(), 30); }},
    };
    for (const auto& row : rows) {
        const std::string path = bundle("system/" + std::string{row.name} + ".app");
        if (row.spoil(path, path + "/Entitlements.plist") != 0) {
            EXPECT_NE(geteuid(), 0U) << row.name;  // only root gives files away
            continue;
        }
        const auto found = read(path);
        ASSERT_EQ(found.ok(), row.honoured) << row.name;
        EXPECT_EQ(found ? *found : Dictionary{}, row.honoured ? kAll : Dictionary{}) << row.name;
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
