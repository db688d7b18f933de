#include "platform/file/Identity.h"
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
        const Extension extension{path, {0xfe01, 0xffffffffffffffff, -1, 0xffffffffffffffff}};
        EXPECT_EQ(unseal(seal(extension)), extension) << path;
        EXPECT_LE(seal(extension).size(), kLongestToken);
    }

    const std::string token = seal({"/a/b", {1, 2, 3, 4}});
    const std::string mac = token.substr(token.rfind(';') + 1);
    for (std::size_t i = 0; i < token.size(); ++i) {
        std::string altered = token;
        altered[i] = static_cast<char>(altered[i] ^ 1);
        EXPECT_FALSE(unseal(altered)) << "altered at " << i;
        EXPECT_FALSE(unseal(token.substr(0, i))) << "cut at " << i;
        EXPECT_FALSE(unseal(token.substr(i + 1))) << "begun after " << i;
    }
    const std::string other = seal({"/a", {1, 2, 3, 4}}), prefix = token.substr(0, token.size() - mac.size());
    for (const std::string& forged :
         {token + '\0', "halvern.file-read;1:2:3:4;/a;" + mac, prefix + std::string(mac.size(), '0'),
          prefix + other.substr(other.size() - mac.size()), std::string(1 << 20, 'a') + ";" + mac}) {
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

// Whatever lies at the directory's path by now: what is named is reached from the directory that was opened.
TEST(IssueFileExtension, BeneathADirectoryIsForWhatThatVeryDirectoryHolds) {
    const support::TemporaryDirectory root;
    root.write("bundle/in/file", "x");
    root.write("outside/in/file", "y");
    fs::create_symlink("../outside", root / "bundle/outward");
    fs::create_symlink("in", root / "bundle/inward");
    fs::create_symlink(root / "bundle/in/file", root / "bundle/absolute");
    const std::string bundle = root / "bundle";
    const auto identity = file::identityOf(file::UniqueFd{::open(bundle.c_str(), O_PATH | O_CLOEXEC)}.get());
    ASSERT_TRUE(identity);
    const auto asked = [&](const char* name) -> std::string {
        errno = 0;
        const auto opened = file::openSame(bundle, *identity, O_PATH | O_CLOEXEC);
        if (!opened) return strerrorname_np(static_cast<int>(opened.error().code));
        const auto token = issueFileExtensionBeneath(kReadOnlyFileClass, *opened, bundle, name);
        const auto extension = unseal(token.value_or(""));
        return extension ? extension->path.substr(root.path().size() + 1) : strerrorname_np(errno);
    };
    const struct {
        const char *name, *issued;
    } rows[] = {
        {".", "bundle"},
        {"in/file", "bundle/in/file"},
        {"inward/./file", "bundle/in/file"},
        {"absolute", "bundle/in/file"},
        {"in/..", "bundle"},
        {"outward/in/file", "EXDEV"},
        {"..", "EXDEV"},
        {"missing", "ENOENT"},
    };
    for (const auto& row : rows) EXPECT_EQ(asked(row.name), row.issued) << row.name;
    static_cast<void>(issue(root / "outside/in/file"));  // a token kept for anywhere does not count
    fs::rename(root / "bundle", root / "away");
    fs::create_symlink("outside", root / "bundle");
    EXPECT_EQ(asked("."), "ELOOP");
    EXPECT_EQ(asked("in/file"), "ELOOP");
    fs::remove(root / "bundle");
    fs::rename(root / "outside", root / "bundle");
    for (const char* name : {".", "in/file"}) EXPECT_EQ(asked(name), "ESTALE") << name;
}

}  // namespace
}  // namespace sandbox
