#include "platform/entitlements/Entitlements.h"
#include "platform/mox/PeerProgram.h"
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
        chmod(root.writeList(place + "/Entitlements.plist", kAll).c_str(), 0644);
        chmod((root / place).c_str(), 0755);
        return root / place;
    }

    static value::Result<Dictionary> read(const std::string& path) {
        return ofBundle(file::UniqueFd{open(path.c_str(), O_RDONLY | O_DIRECTORY)}.get(), path);
    }

    const support::PrivateRoot root;
};

TEST_F(Entitlements, AreNotHonouredWhenAnybodyElseCouldHaveWrittenThem) {
    const struct {
        const char* name;
        mode_t bundleMode, fileMode;
        uid_t bundleOwner = geteuid(), fileOwner = geteuid();
    } rows[] = {
        {"group writes the file", 0755, 0664},   {"all write the file", 0755, 0646},
        {"group writes the bundle", 0775, 0644}, {"another's file", 0755, 0644, geteuid(), 4711},
        {"another's bundle", 0755, 0644, 4711},
    };
    for (const auto& row : rows) {
        const std::string path = bundle("system/" + std::string{row.name} + ".app"),
                          file = path + "/Entitlements.plist";
        if (chown(path.c_str(), row.bundleOwner, -1) + chown(file.c_str(), row.fileOwner, -1) != 0) {
            skipPart(row.name + ": nobody may give files away here"s);
            continue;
        }
        ASSERT_EQ(chmod(path.c_str(), row.bundleMode) + chmod(file.c_str(), row.fileMode), 0);
        EXPECT_FALSE(read(path)) << row.name;
    }
    const std::string path = bundle("system/link.app");
    fs::rename(path + "/Entitlements.plist", path + "/real");
    fs::create_symlink("real", path + "/Entitlements.plist");
    EXPECT_FALSE(read(path)) << "a link";
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
    const std::string path = bundle("system/A.app"), theirs = bundle("system/B.app");
    if (chown(theirs.c_str(), 4711, 0) != 0 || seteuid(4711) != 0 || seteuid(0) != 0)
        GTEST_SKIP() << "nobody may become another user here";
    auto directories = paths::directories();
    directories.privateRoot = false;
    paths::setDirectories(directories);
    EXPECT_EQ(*read(path), kAll);
    ASSERT_EQ(chmod(root.path().c_str(), 0755), 0);
    ASSERT_EQ(seteuid(4711), 0);
    const auto asItsUser = read(theirs);
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(*asItsUser, kPublic);
}

TEST_F(Entitlements, OfAPeerAreThoseOfItsProgramAsTheyWereRead) {
    const std::string name = "halvern.private.velto.manager", path = bundle("system/A.app");
    const auto peer = std::make_shared<mox::PeerIdentity>();
    const auto program = std::make_shared<mox::PeerProgram>();
    EXPECT_EQ(*SecurityTask{peer}.value(name), std::nullopt);
    peer->program = program;
    program->entitlements = *read(path);
    EXPECT_EQ(*SecurityTask{peer}.value(name), std::nullopt) << "no path of the executable, no entitlements";
    program->executablePath = path + "/main";
    EXPECT_EQ(*SecurityTask{peer}.value(name), value::Value{true});
    root.write("system/A.app/Entitlements.plist", "no list");
    EXPECT_EQ(*SecurityTask{peer}.value(name), value::Value{true});
    program->entitlements = read(path);
    EXPECT_FALSE(SecurityTask{peer}.value(name));
}

}  // namespace
}  // namespace entitlements
