#include "platform/sandbox/Extensions.h"
#include "platform/sandbox/Sandbox.h"
#include "tests/support/Words.h"

namespace sandbox {
namespace {

class ExtensionsTest : public testing::Test {
protected:
    ExtensionsTest() {
        root.write("bundle/Resources/icon", "icon");
        root.write("bundle/Info.plist", "info");
        root.write("secret", "secret");
    }

    std::int64_t consume(const std::string& path) {
        return extensions.consume(issueFileExtension(kReadOnlyFileClass, path).value_or(""));
    }

    // What the file holds, or the text of the error number.
    std::string read(std::int64_t handle, const std::string& path) const {
        const auto opened = extensions.open(handle, path);
        if (!opened) return strerrorname_np(static_cast<int>(opened.error().code));
        EXPECT_EQ(fcntl(opened->get(), F_GETFL) & O_ACCMODE, O_RDONLY);
        char buffer[64];
        const ssize_t size = ::read(opened->get(), buffer, sizeof buffer);
        return size < 0 ? "unreadable" : std::string(buffer, static_cast<std::size_t>(size));
    }

    const support::TemporaryDirectory root;
    const std::string top = root.path();
    Extensions extensions;
};

TEST_F(ExtensionsTest, OpenRegularFilesBeneathTheTokensPathAndNothingElse) {
    const std::string bundle = top + "/bundle";
    ASSERT_EQ(symlink("../secret", (bundle + "/escape").c_str()), 0);
    ASSERT_EQ(symlink("..", (bundle + "/up").c_str()), 0);
    root.write("bundle2/file", "beside");
    const std::int64_t handle = consume(bundle);
    ASSERT_GT(handle, 0);
    const std::pair<std::string, const char*> rows[] = {
        {bundle + "/Info.plist", "info"},
        {bundle + "/Resources/icon", "icon"},
        {bundle + "/escape", "ELOOP"},
        {bundle + "/up/secret", "ELOOP"},
        {bundle + "/../secret", "EXDEV"},
        {bundle + "//etc/passwd", "EXDEV"},
        {top + "/secret", "EACCES"},
        {"/etc/passwd", "EACCES"},
        {top + "/bundle2/file", "EACCES"},
        {"Info.plist", "EACCES"},
        {"", "EACCES"},
        {bundle + "/Info.plist\0/x"s, "EINVAL"},
        {bundle, "EISDIR"},
        {bundle + "/missing", "ENOENT"},
    };
    for (const auto& [path, outcome] : rows) EXPECT_EQ(read(handle, path), outcome) << path;
    extensions.release(handle);
    EXPECT_EQ(read(handle, bundle + "/Info.plist"), "EBADF");
}

TEST_F(ExtensionsTest, OfAFileOpenThatFileOnly) {
    const std::int64_t handle = consume(root / "bundle/Info.plist");
    EXPECT_EQ(read(handle, top + "/bundle/Info.plist"), "info");
    EXPECT_EQ(read(handle, top + "/bundle/Info.plist/x"), "ENOTDIR");
    EXPECT_EQ(read(handle, top + "/bundle/Resources/icon"), "EACCES");
    fs::rename(top + "/secret", top + "/bundle/Info.plist");
    EXPECT_EQ(read(handle, top + "/bundle/Info.plist"), "ESTALE");
}

TEST_F(ExtensionsTest, DoNotFollowAPathThatWasSwappedAfterTheIssue) {
    const std::string bundle = top + "/bundle";
    const std::int64_t handle = consume(bundle);
    const std::int64_t deeper = consume(bundle + "/Resources");
    fs::rename(bundle, top + "/moved");
    EXPECT_EQ(read(handle, bundle + "/Info.plist"), "ENOENT");
    ASSERT_EQ(symlink("moved", bundle.c_str()), 0);
    EXPECT_EQ(read(handle, bundle + "/Info.plist"), "ELOOP") << "though the link leads to the very directory";
    EXPECT_EQ(read(deeper, bundle + "/Resources/icon"), "ELOOP") << "nor a link above it";
    fs::remove(bundle);
    root.write("bundle/Info.plist", "another");
    EXPECT_EQ(read(handle, bundle + "/Info.plist"), "ESTALE");
    fs::remove_all(bundle);
    fs::rename(top + "/moved", bundle);
    EXPECT_EQ(read(handle, bundle + "/Info.plist"), "info");
}

TEST_F(ExtensionsTest, RefuseForgeriesAndMoreThanTheBound) {
    EXPECT_EQ(extensions.consume(""), kRefused);
    EXPECT_EQ(extensions.consume("halvern.file-read;1:2;/etc;" + std::string(64, '0')), kRefused);
    EXPECT_EQ(read(0, "/etc/passwd"), "EBADF");
    EXPECT_EQ(read(kRefused, "/etc/passwd"), "EBADF");

    const auto token = issueFileExtension(kReadOnlyFileClass, top);
    std::int64_t last = 0;
    for (std::size_t i = 0; i < kMostHandles; ++i) {
        const std::int64_t handle = extensions.consume(*token);
        ASSERT_GT(handle, 0);
        ASSERT_NE(handle, last);
        last = handle;
    }
    EXPECT_EQ(extensions.consume(*token), kRefused);
    extensions.release(last);
    EXPECT_GT(extensions.consume(*token), 0);
}

}  // namespace
}  // namespace sandbox
