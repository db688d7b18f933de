#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/file/File.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Words.h"

namespace file {
namespace {

TEST(CanonicalPath, ResolvesLinksAndDotsAndSaysWhyNot) {
    const support::TemporaryDirectory root;
    const std::string real = *canonicalPath(root.path());
    root.write("a/file", "");
    ASSERT_EQ(::symlink("a", (root / "link").c_str()), 0);
    ASSERT_EQ(::symlink("loop", (root / "loop").c_str()), 0);
    EXPECT_EQ(canonicalPath(root / "link/../link/./file"), real + "/a/file");
    const struct {
        std::string path;
        int error;
    } rows[] = {
        {root / "absent", ENOENT},     {"", ENOENT}, {root / "loop", ELOOP}, {root / "a/file/", ENOTDIR},
        {(root / "a") + '\0', EINVAL},
    };
    for (const auto& row : rows) {
        errno = 0;
        EXPECT_FALSE(canonicalPath(row.path)) << row.path;
        EXPECT_EQ(errno, row.error) << row.path;
    }
}

TEST(CanonicalPath, BoundIsOnTheResolvedPathNotOnTheGivenOne) {
    const support::TemporaryDirectory root;
    std::string path = *canonicalPath(root.path());
    while (path.size() < 1023) {
        path += "/" + std::string(std::min<std::size_t>(200, 1023 - path.size() - 1), 'd');
        if (1023 - path.size() == 1) path.pop_back();  // room for a separator and a name
        ASSERT_FALSE(makeDirectories(path, 0700));
    }
    ASSERT_EQ(path.size(), 1023U);
    EXPECT_EQ(canonicalPath(path + "/././."), path);
    ASSERT_FALSE(makeDirectories(path + "/e", 0700));
    EXPECT_FALSE(canonicalPath(path + "/e"));
    EXPECT_EQ(errno, ENAMETOOLONG);
    ASSERT_EQ(::symlink((path + "/e").c_str(), (root / "short").c_str()), 0);
    EXPECT_FALSE(canonicalPath(root / "short"));
}

TEST(MakeDirectories, GivesNewOnesTheModeAndTakesExistingOnes) {
    const support::TemporaryDirectory root;
    EXPECT_FALSE(makeDirectories(root / "a/b//c/", 0700));
    EXPECT_FALSE(makeDirectories(root / "a/b/c", 0700));
    struct stat status {};
    ASSERT_EQ(::stat((root / "a/b").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0700U);
    root.write("file", "");
    for (const char* name : {"file", "file/below"}) {
        const auto error = makeDirectories(root / name, 0700);
        ASSERT_TRUE(error) << name;
        EXPECT_EQ(error->code, ENOTDIR) << name;
    }
}

}  // namespace
}  // namespace file
