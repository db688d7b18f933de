#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/file/File.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Words.h"

namespace file {
namespace {

constexpr std::size_t kPlenty = std::size_t{1} << 20;

std::string contentOf(const std::string& path) {
    const auto read = readRegular(path, kPlenty);
    return read ? read->bytes : read.error().localizedDescription();
}

std::size_t entriesIn(const std::string& directory) {
    const fs::directory_iterator entries{directory};
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
    EXPECT_TRUE(fs::is_symlink(root / "second"));
    const auto error = writeAtomically(root / "loop", "x");
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, ELOOP);
}

TEST(WriteAtomically, LeavesNothingBehindWhenItFails) {
    const support::TemporaryDirectory root;
    root.write("directory/inside", "kept");
    const std::pair<const char*, int> rows[] = {{"directory", EISDIR},
                                                {"directory/", EISDIR},
                                                {"directory/..", EISDIR},
                                                {"absent/file", ENOENT},
                                                {"directory/inside/file", ENOTDIR}};
    for (const auto& [name, code] : rows) {
        const auto error = writeAtomically(root / name, "x");
        EXPECT_EQ(error ? error->code : 0, code) << name;
    }
    EXPECT_EQ(contentOf(root / "directory/inside"), "kept");
    EXPECT_EQ(entriesIn(root.path()) + entriesIn(root / "directory"), 2U);
}

}  // namespace
}  // namespace file
