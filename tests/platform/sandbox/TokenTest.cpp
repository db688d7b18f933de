#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "platform/sandbox/Sandbox.h"
#include "platform/sandbox/Token.h"
#include "tests/support/TemporaryDirectory.h"

namespace sandbox {
namespace {

std::optional<std::string> issue(const std::string& path) {
    return issueFileExtension(kReadOnlyFileClass, path);
}

TEST(Token, IsReadBackAsItWasIssuedAndInNoOtherForm) {
    for (const std::string& path : {std::string{"/"}, std::string{"/a/b-c_d.app"}, std::string{"/50%;/\xff\n x"},
                                    "/" + std::string(1022, '\x01')}) {
        const Extension extension{path, 0xfe01, 0xffffffffffffffff};
        EXPECT_EQ(unseal(seal(extension)), extension) << path;
        EXPECT_LE(seal(extension).size(), kLongestToken);
    }

    const std::string token = seal({"/a/b", 1, 2});
    const std::string mac = token.substr(token.rfind(';') + 1);
    for (std::size_t i = 0; i < token.size(); ++i) {
        std::string altered = token;
        altered[i] = static_cast<char>(altered[i] ^ 1);
        EXPECT_FALSE(unseal(altered)) << "altered at " << i;
        EXPECT_FALSE(unseal(token.substr(0, i))) << "cut at " << i;
        EXPECT_FALSE(unseal(token.substr(i + 1))) << "begun after " << i;
    }
    const struct {
        const char* name;
        std::string token;
    } rows[] = {
        {"something behind", token + "0"},
        {"a byte behind", token + '\0'},
        {"another path", "halvern.file-read;1:2;/a;" + mac},
        {"a path beneath", "halvern.file-read;1:2;/a/b/c;" + mac},
        {"the MAC of nothing", "halvern.file-read;1:2;/a/b;" + std::string(64, '0')},
        {"the MAC in capitals", token.substr(0, token.size() - 64) + "ABCDEF" + mac.substr(6)},
        {"another token's MAC",
         token.substr(0, token.size() - 64) + seal({"/a", 1, 2}).substr(seal({"/a", 1, 2}).size() - 64)},
        {"no MAC", "halvern.file-read;1:2;/a/b;"},
        {"text", "token"},
        {"separators", std::string(5000, ';')},
        {"far too long", std::string(1 << 20, 'a') + ";" + mac},
    };
    for (const auto& row : rows) EXPECT_FALSE(unseal(row.token)) << row.name;
}

TEST(IssueFileExtension, NamesTheCanonicalPathAndTheFile) {
    const support::TemporaryDirectory root;
    const std::string real = std::filesystem::canonical(root.path());
    root.write("a/b/file", "x");
    ASSERT_EQ(symlink("a", (root / "link").c_str()), 0);
    const auto token = issue(root / "link/b/../b");
    ASSERT_TRUE(token);
    const auto extension = unseal(*token);
    ASSERT_TRUE(extension);
    EXPECT_EQ(extension->path, real + "/a/b");
    struct stat status {};
    ASSERT_EQ(stat((root / "a/b").c_str(), &status), 0);
    EXPECT_EQ(extension->inode, status.st_ino);
    EXPECT_EQ(issue(root / "link/b/../b"), token);
    EXPECT_EQ(issue(root / "a/b"), token);
    EXPECT_NE(issue(root / "a/b/file"), token);

    std::filesystem::rename(root / "a", root / "former");
    root.write("a/b/file", "another");
    const auto later = issue(root / "link/b/../b");
    ASSERT_TRUE(later);
    EXPECT_NE(later, token) << "another directory at the same path";
}

TEST(IssueFileExtension, RefusesWithAReason) {
    const support::TemporaryDirectory root;
    ASSERT_EQ(mkfifo((root / "pipe").c_str(), 0600), 0);
    ASSERT_EQ(symlink("loop", (root / "loop").c_str()), 0);
    std::string deep = root.path();
    while (deep.size() <= 1023) std::filesystem::create_directory(deep += "/" + std::string(200, 'd'));
    const struct {
        const char* name;
        std::string path;
        int error;
    } rows[] = {
        {"missing", root / "missing", ENOENT},
        {"empty", "", ENOENT},
        {"a file as a directory", root.write("file", "") + "/x", ENOTDIR},
        {"a pipe", root / "pipe", EACCES},
        {"a device", "/dev/null", EACCES},
        {"a loop", root / "loop", ELOOP},
        {"too long once resolved", deep, ENAMETOOLONG},
        {"a byte of zero", root.path() + std::string{"\0x", 2}, EINVAL},
    };
    for (const auto& row : rows) {
        errno = 0;
        EXPECT_FALSE(issue(row.path)) << row.name;
        EXPECT_EQ(errno, row.error) << row.name;
    }
    errno = 0;
    EXPECT_FALSE(issueFileExtension("halvern.file-read-write", root.path()));
    EXPECT_EQ(errno, EINVAL);
}

TEST(IssueFileExtension, StaysWithinTheDirectoryItIsGiven) {
    const support::TemporaryDirectory root;
    root.write("bundle/Shared/file", "x");
    root.write("bundle2/file", "y");
    ASSERT_EQ(symlink("Shared", (root / "bundle/inward").c_str()), 0);
    ASSERT_EQ(symlink("../bundle2", (root / "bundle/outward").c_str()), 0);
    ASSERT_EQ(symlink("bundle", (root / "link").c_str()), 0);
    const struct {
        const char* path;
        bool issued;
    } rows[] = {
        {"bundle", true},
        {"bundle/Shared", true},
        {"bundle/Shared/../inward/file", true},
        {"bundle/outward", false},
        {"bundle/outward/file", false},
        {"bundle/..", false},
        {"bundle/../bundle2", false},
    };
    for (const auto& row : rows) {
        for (const char* within : {"bundle", "link"}) {
            static_cast<void>(issue(root / row.path));  // a token kept for anywhere does not count
            errno = 0;
            const auto token = issueFileExtension(kReadOnlyFileClass, root / row.path, root / within);
            EXPECT_EQ(token.has_value(), row.issued) << row.path << " within " << within;
            EXPECT_EQ(errno == EXDEV, !row.issued) << row.path << " within " << within;
        }
    }
    const std::string inward = root / "bundle/inward";
    ASSERT_TRUE(issueFileExtension(kReadOnlyFileClass, inward, root / "bundle"));
    ASSERT_EQ(unlink(inward.c_str()) + symlink("../bundle2", inward.c_str()), 0);
    EXPECT_FALSE(issueFileExtension(kReadOnlyFileClass, inward, root / "bundle")) << "a link exchanged since";
}

}  // namespace
}  // namespace sandbox
