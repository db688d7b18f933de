#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>

#include <gtest/gtest.h>

#include "platform/file/File.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TemporaryDirectory.h"

namespace file {
namespace {

constexpr std::size_t kPlenty = std::size_t{1} << 20;

std::string contentOf(const std::string& path) {
    const auto read = readRegular(path, kPlenty);
    return read ? read->bytes : read.error().localizedDescription();
}

std::size_t entriesIn(const std::string& directory) {
    const std::filesystem::directory_iterator entries{directory};
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

TEST(WriteAtomically, ReplacesTheFileWithAPrivateOne) {
    const support::TemporaryDirectory root;
    const std::string path = root.write("file", "old");
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    const UniqueFd reader{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    EXPECT_FALSE(writeAtomically(path, "new"));
    const auto read = readRegular(path, kPlenty);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->bytes, "new");
    EXPECT_EQ(read->mode & 07777U, 0600U);
    char old[4] = {};
    EXPECT_EQ(::read(reader.get(), old, sizeof old), 3);
    EXPECT_STREQ(old, "old") << "who reads sees the old file to its end";
    EXPECT_EQ(entriesIn(root.path()), 1U);
}

TEST(WriteAtomically, GoesThroughLinksAndKeepsThem) {
    const support::TemporaryDirectory root;
    root.write("real/file", "old");
    ASSERT_EQ(::symlink("real/file", (root / "first").c_str()), 0);
    ASSERT_EQ(::symlink((root / "first").c_str(), (root / "second").c_str()), 0);
    ASSERT_EQ(::symlink("real/absent", (root / "dangling").c_str()), 0);
    ASSERT_EQ(::symlink("loop", (root / "loop").c_str()), 0);
    EXPECT_FALSE(writeAtomically(root / "second", "new"));
    EXPECT_FALSE(writeAtomically(root / "dangling", "made"));
    EXPECT_EQ(contentOf(root / "real/file"), "new");
    EXPECT_EQ(contentOf(root / "real/absent"), "made");
    EXPECT_TRUE(std::filesystem::is_symlink(root / "second"));
    const auto error = writeAtomically(root / "loop", "x");
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, ELOOP);
}

TEST(WriteAtomically, LeavesNothingBehindWhenItFails) {
    const support::TemporaryDirectory root;
    root.write("directory/inside", "kept");
    const struct {
        const char* name;
        int error;
    } rows[] = {
        {"directory", EISDIR},
        {"directory/", EISDIR},
        {"directory/..", EISDIR},
        {"absent/file", ENOENT},
        {"directory/inside/file", ENOTDIR},
    };
    for (const auto& row : rows) {
        const auto error = writeAtomically(root / row.name, "x");
        ASSERT_TRUE(error) << row.name;
        EXPECT_EQ(error->code, row.error) << row.name;
    }
    EXPECT_EQ(contentOf(root / "directory/inside"), "kept");
    EXPECT_EQ(entriesIn(root.path()) + entriesIn(root / "directory"), 2U);
}

// Mounts a file system of 64 KiB at the directory, for this process alone.
bool mountSmall(const std::string& directory) {
    if (::unshare(CLONE_NEWNS) != 0 && ::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
    return ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("tmpfs", directory.c_str(), "tmpfs", 0, "size=64k") == 0;
}

TEST(WriteAtomically, LeavesTheOldFileWhenTheFileSystemIsFull) {
    const support::TemporaryDirectory root;
    const std::string answer = support::inChildProcess([&]() -> std::string {
        if (!mountSmall(root.path())) return "no mount";
        const std::string path = root / "file";
        if (writeAtomically(path, "old")) return "could not write what fits";
        const auto error = writeAtomically(path, std::string(kPlenty, 'x'));
        if (!error || error->code != ENOSPC) return "the disk was not full";
        if (contentOf(path) != "old") return "the old file is gone";
        return entriesIn(root.path()) == 1 ? "safe" : "a temporary was left";
    });
    if (answer == "no mount") GTEST_SKIP() << "no file system may be mounted here";
    EXPECT_EQ(answer, "safe");
}

}  // namespace
}  // namespace file
