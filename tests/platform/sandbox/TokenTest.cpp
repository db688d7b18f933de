#include "platform/sandbox/Sandbox.h"
#include "platform/sandbox/Token.h"
#include "tests/support/Words.h"

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
    const std::string other = seal({"/a", 1, 2}), prefix = token.substr(0, token.size() - mac.size());
    for (const std::string& forged :
         {token + "0", token + '\0', "halvern.file-read;1:2;/a;" + mac, "halvern.file-read;1:2;/a/b/c;" + mac,
          prefix + std::string(64, '0'), prefix + "ABCDEF" + mac.substr(6), prefix + other.substr(other.size() - 64),
          prefix, "token"s, std::string(5000, ';'), std::string(1 << 20, 'a') + ";" + mac}) {
        EXPECT_FALSE(unseal(forged)) << forged.substr(0, 100);
    }
}

TEST(IssueFileExtension, NamesTheCanonicalPathAndTheFile) {
    const support::TemporaryDirectory root;
    root.write("a/b/file", "x");
    ASSERT_EQ(symlink("a", (root / "link").c_str()), 0);
    const auto token = issue(root / "link/b/../b");
    const auto extension = unseal(token.value_or(""));
    ASSERT_TRUE(extension);
    EXPECT_EQ(extension->path, root / "a/b");
    struct stat status {};
    ASSERT_EQ(stat((root / "a/b").c_str(), &status), 0);
    EXPECT_EQ(extension->inode, status.st_ino);
    EXPECT_EQ(issue(root / "a/b"), token);
    EXPECT_NE(issue(root / "a/b/file"), token);

    fs::rename(root / "a", root / "former");
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
    while (deep.size() <= 1023) fs::create_directory(deep += "/" + std::string(200, 'd'));
    const std::pair<std::string, int> rows[] = {{root / "missing", ENOENT},
                                                {root.write("file", "") + "/x", ENOTDIR},
                                                {root / "pipe", EACCES},
                                                {"", ENOENT},
                                                {root.path() + std::string{"\0x", 2}, EINVAL},
                                                {"/dev/null", EACCES},
                                                {root / "loop", ELOOP},
                                                {deep, ENAMETOOLONG}};
    for (const auto& [path, error] : rows) {
        errno = 0;
        EXPECT_FALSE(issue(path)) << path;
        EXPECT_EQ(errno, error) << path;
    }
    errno = 0;
    EXPECT_FALSE(issueFileExtension("halvern.file-read-write", root.path()));
    EXPECT_EQ(errno, EINVAL);
}

TEST(IssueFileExtension, StaysWithinTheDirectoryItIsGiven) {
    const support::TemporaryDirectory root;
    root.write("bundle2/file", "y");
    fs::create_directory(root / "bundle");
    fs::create_symlink("../bundle2", root / "bundle/outward");
    fs::create_symlink("bundle", root / "link");
    const auto within = [&](const char* path, const char* bundle) {
        static_cast<void>(issue(root / path));  // a token kept for anywhere does not count
        errno = 0;
        return issueFileExtension(kReadOnlyFileClass, root / path, root / bundle).has_value() || errno != EXDEV;
    };
    for (const char* bundle : {"bundle", "link"}) {
        EXPECT_TRUE(within("bundle", bundle));
        for (const char* path : {"bundle/outward/file", "bundle/..", "bundle2"})
            EXPECT_FALSE(within(path, bundle)) << path;
    }
}

}  // namespace
}  // namespace sandbox
