#include "platform/sandbox/Sandbox.h"
#include "platform/sandbox/Token.h"
#include "tests/support/Words.h"

namespace sandbox {
namespace {

std::optional<std::string> issue(const std::string& path) {
    return issueFileExtension(kReadOnlyFileClass, path);
}

TEST(Token, IsReadBackAsItWasIssuedAndInNoOtherForm) {
    for (const std::string& path : {"/"s, "/a/b-c_d.app"s, "/50%;/\xff\n x"s, "/" + std::string(1022, '\x01')}) {
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
         {token + '\0', "halvern.file-read;1:2;/a;" + mac, prefix + std::string(64, '0'),
          prefix + other.substr(other.size() - 64), std::string(1 << 20, 'a') + ";" + mac}) {
        EXPECT_FALSE(unseal(forged)) << forged.substr(0, 100);
    }
}

TEST(IssueFileExtension, NamesTheCanonicalPathAndTheFile) {
    const support::TemporaryDirectory root;
    root.write("a/b/file", "x");
    fs::create_symlink("a", root / "link");
    const auto token = issue(root / "link/b/../b");
    const auto extension = unseal(token.value_or(""));
    ASSERT_TRUE(extension);
    EXPECT_EQ(extension->path, root / "a/b");
    EXPECT_EQ(issue(root / "a/b"), token);

    fs::rename(root / "a", root / "former");
    root.write("a/b/file", "another");
    EXPECT_NE(issue(root / "link/b/../b").value_or(*token), token) << "another directory at the same path";
}

TEST(IssueFileExtension, RefusesWithAReason) {
    const support::TemporaryDirectory root;
    ASSERT_EQ(mkfifo((root / "pipe").c_str(), 0600), 0);
    const std::pair<std::string, int> rows[] = {
        {root / "missing", ENOENT},     {root / "pipe", EACCES}, {"/dev/null", EACCES}, {"", ENOENT},
        {root.path() + "\0x"s, EINVAL},
    };
    for (const auto& [path, error] : rows) {
        errno = 0;
        EXPECT_FALSE(issue(path)) << path;
        EXPECT_EQ(errno, error) << path;
    }
    EXPECT_FALSE(issueFileExtension("halvern.file-read-write", root.path()));
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
