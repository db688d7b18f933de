#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "platform/sandbox/Extensions.h"
#include "platform/sandbox/Sandbox.h"
#include "tests/support/TemporaryDirectory.h"

namespace sandbox {
namespace {

class ExtensionsTest : public testing::Test {
protected:
    ExtensionsTest() : top{std::filesystem::canonical(root.path())} {
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
    const std::string top;
    Extensions extensions;
};

TEST_F(ExtensionsTest, OpenRegularFilesBeneathTheTokensPathAndNothingElse) {
    const std::string bundle = top + "/bundle";
    ASSERT_EQ(symlink("../secret", (bundle + "/escape").c_str()), 0);
    ASSERT_EQ(symlink("Info.plist", (bundle + "/inside").c_str()), 0);
    ASSERT_EQ(symlink("..", (bundle + "/up").c_str()), 0);
    ASSERT_EQ(mkfifo((bundle + "/pipe").c_str(), 0600), 0);
    const bool device = mknod((bundle + "/device").c_str(), S_IFCHR | 0600, makedev(1, 5)) == 0;
    root.write("bundle2/file", "beside");
    const std::int64_t handle = consume(bundle);
    ASSERT_GT(handle, 0);
    const struct {
        const char* name;
        std::string path, outcome;
    } rows[] = {
        {"a file", bundle + "/Info.plist", "info"},
        {"a deeper one", bundle + "/Resources/icon", "icon"},
        {"a link out", bundle + "/escape", "ELOOP"},
        {"a link inside", bundle + "/inside", "ELOOP"},
        {"through a link", bundle + "/up/secret", "ELOOP"},
        {"upwards", bundle + "/../secret", "EXDEV"},
        {"up and down again", bundle + "/Resources/../Info.plist", "EXDEV"},
        {"outside", top + "/secret", "EACCES"},
        {"far outside", "/etc/passwd", "EACCES"},
        {"a name that begins alike", top + "/bundle2/file", "EACCES"},
        {"a relative path", "Info.plist", "EACCES"},
        {"no path", "", "EACCES"},
        {"an absolute path inside", bundle + "//etc/passwd", "EXDEV"},
        {"a byte of zero", bundle + std::string{"/Info.plist\0/x", 14}, "EINVAL"},
        {"missing", bundle + "/missing", "ENOENT"},
        {"the directory", bundle, "EISDIR"},
        {"a directory", bundle + "/Resources", "EISDIR"},
        {"a pipe", bundle + "/pipe", "EINVAL"},
        {"a device", bundle + "/device", device ? "EINVAL" : "ENOENT"},
    };
    for (const auto& row : rows) EXPECT_EQ(read(handle, row.path), row.outcome) << row.name;
    extensions.release(handle);
    EXPECT_EQ(read(handle, bundle + "/Info.plist"), "EBADF");
}

TEST_F(ExtensionsTest, OfAFileOpenThatFileOnly) {
    const std::int64_t handle = consume(root / "bundle/Info.plist");
    EXPECT_EQ(read(handle, top + "/bundle/Info.plist"), "info");
    EXPECT_EQ(read(handle, top + "/bundle/Info.plist/x"), "ENOTDIR");
    EXPECT_EQ(read(handle, top + "/bundle/Resources/icon"), "EACCES");
    std::filesystem::rename(top + "/secret", top + "/bundle/Info.plist");
    EXPECT_EQ(read(handle, top + "/bundle/Info.plist"), "ESTALE");
}

TEST_F(ExtensionsTest, DoNotFollowAPathThatWasSwappedAfterTheIssue) {
    const std::string bundle = top + "/bundle";
    const std::int64_t handle = consume(bundle);
    const std::int64_t deeper = consume(bundle + "/Resources");
    std::filesystem::rename(bundle, top + "/moved");
    EXPECT_EQ(read(handle, bundle + "/Info.plist"), "ENOENT");
    ASSERT_EQ(symlink("moved", bundle.c_str()), 0);
    EXPECT_EQ(read(handle, bundle + "/Info.plist"), "ELOOP") << "though the link leads to the very directory";
    EXPECT_EQ(read(deeper, bundle + "/Resources/icon"), "ELOOP") << "nor a link above it";
    std::filesystem::remove(bundle);
    root.write("bundle/Info.plist", "another");
    EXPECT_EQ(read(handle, bundle + "/Info.plist"), "ESTALE");
    std::filesystem::remove_all(bundle);
    std::filesystem::rename(top + "/moved", bundle);
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
