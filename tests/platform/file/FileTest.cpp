#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <cstddef>

#include "platform/file/Beneath.h"
#include "platform/file/File.h"
#include "platform/mounts/Mounts.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Words.h"

namespace file {
namespace {

std::int64_t codeOf(const std::optional<value::Error>& error) {
    return error ? error->code : 0;
}
template <typename T>
std::int64_t codeOf(const value::Result<T>& result) {
    return result ? 0 : result.error().code;
}

TEST(CanonicalPath, ResolvesLinksAndDotsAndSaysWhyNot) {
    const support::TemporaryDirectory root;
    const std::string file = root.write("a/file", "");
    fs::create_symlink("a", root / "link");
    fs::create_symlink("loop", root / "loop");
    // The bound is on the resolved path, not on the given one.
    std::string longest = root.path();
    while (longest.size() < 1023 - 202) longest += "/" + std::string(200, 'd');
    longest += "/" + std::string(1023 - longest.size() - 1, 'd');
    ASSERT_FALSE(makeDirectories(longest + "/e", 0700));
    fs::create_symlink(longest + "/e", root / "short");
    ASSERT_EQ(canonicalPath(longest + "/././."), longest);
    EXPECT_EQ(canonicalPathAtHand(longest + "/././."), longest) << "it was just looked at";
    root.write("a (deleted)", "");
    fs::create_symlink(root / "a/../link/", root / "absolute");
    std::string longer = root / "a";
    while (longer.size() < 4094) longer += "/.";
    const std::pair<std::string, int> rows[] = {
        {root / "absent", ENOENT},      {"", ENOENT},
        {(root / "a") + '\0', EINVAL},  {root / "loop", ELOOP},
        {file + "/", ENOTDIR},          {root / "short", ENAMETOOLONG},
        {longest + "/e", ENAMETOOLONG}, {longer + "//.", ENAMETOOLONG},
        {"/proc/self/root/tmp", ELOOP},
    };
    for (const auto resolve : {canonicalPath, mounts::canonicalPathWhereAnswered}) {
        SCOPED_TRACE(resolve == canonicalPath ? "in one call" : "name by name");
        EXPECT_EQ(resolve(root / "link/../link/./file"), file);
        EXPECT_EQ(resolve(root / "absolute//file"), file);
        EXPECT_EQ(resolve(root / "absolute//"), root / "a");
        EXPECT_EQ(resolve(longest + "/././."), longest);
        EXPECT_EQ(resolve(root / "a (deleted)"), root / "a (deleted)");
        for (const auto& [path, error] : rows) {
            errno = 0;
            EXPECT_FALSE(resolve(path)) << path;
            EXPECT_EQ(errno, error) << path;
        }
    }
}

TEST(Beneath, ToldByWholeNames) {
    const struct {
        const char *path, *directory, *name;
    } rows[] = {
        {"/a.app/b/c", "/a.app", "b/c"},
        {"/a.app/b", "/", "a.app/b"},
        {"/a.app", "/a.app", ""},
        {"/a.app2/b", "/a.app", ""},
        {"/a", "/a.app", ""},
        {"/a.app/b", "", ""},
        {"/", "/", ""},
        {"/b/a.app/c", "/a.app", ""},
    };
    for (const auto& [path, directory, name] : rows) {
        EXPECT_EQ(nameBeneath(path, directory), name) << path << " in " << directory;
        EXPECT_EQ(isBeneath(path, directory), *name != '\0') << path << " in " << directory;
    }
}

TEST(IsSameFile, AsksForDeviceAndNumber) {
    struct stat one {};
    one.st_dev = 1;
    one.st_ino = 2;
    struct stat onAnotherDevice = one;
    struct stat another = one;
    onAnotherDevice.st_dev = 3;
    another.st_ino = 4;
    EXPECT_TRUE(isSameFile(one, one));
    EXPECT_FALSE(isSameFile(one, onAnotherDevice));
    EXPECT_FALSE(isSameFile(one, another));
}

TEST(EncodedName, EscapesWhatAFileNameMustNotHoldAndKeepsLongTextsApart) {
    const std::string stem(199, 'x'), longest(200, 'x');
    const std::pair<std::string, std::string> rows[] = {{"org.example.Plug-In_1", "org.example.Plug-In_1"},
                                                        {"", "%empty"},
                                                        {"../etc", "%2E%2E%2Fetc"},
                                                        {"a..b", "a..b"},
                                                        {"a@1%", "a%401%25"},
                                                        {"a\0\n\x7F"s, "a%00%0A%7F"},
                                                        {"\xC3\xA9\xE2\x82\xAC\xC3", "\xC3\xA9\xE2\x82\xAC%C3"},
                                                        {"\xC0\xAF\xED\xA0\x80", "%C0%AF%ED%A0%80"},
                                                        {longest, longest}};
    for (const auto& [text, name] : rows) EXPECT_EQ(encodedName(text), name);
    const std::string a = encodedName(stem + "ab");
    EXPECT_NE(a, encodedName(stem + "ac"));
    EXPECT_EQ(a.size(), 200U);
    EXPECT_NE(encodedName(a), a) << "no text gives the name of a longer one";
    // Neither an escape nor a character is cut in two.
    for (const auto& [unit, size] : {std::pair{"/", 3U}, std::pair{"\xF0\x9F\x8D\x90", 4U}}) {
        std::string text = "y";
        while (text.size() < 300) text += unit;
        EXPECT_LE(encodedName(text).size(), 200U);
        EXPECT_EQ((encodedName(text).find("%~") - 1) % size, 0U) << encodedName(text);
    }
}

TEST(ReadRegular, TakesRegularFilesWholeAndRefusesAllElseWithoutBlocking) {
    const support::TemporaryDirectory root;
    root.write("full", "content");
    root.write("empty", "");
    ASSERT_EQ(::mkfifo((root / "pipe").c_str(), 0600), 0);
    fs::create_symlink("full", root / "link");
    const struct {
        std::string path;
        std::size_t limit;
        int error;
        std::string bytes;
    } rows[] = {
        {root / "full", 7, 0, "content"},
        {root / "full", 6, EFBIG, ""},
        {root / "empty", 0, 0, ""},
        {root / "link", 100, 0, "content"},
        {root / "pipe", 100, EINVAL, ""},
        {root.path(), 100, EISDIR, ""},
        {"/dev/zero", 100, EINVAL, ""},
        {root / "absent", 100, ENOENT, ""},
        {root / "full\0.not"s, 100, EINVAL, ""},
        {"/proc/self/limits", 10, EFBIG, ""},  // says that its size is 0
    };
    for (const auto& row : rows) {
        const auto read = readRegular(row.path, row.limit);
        EXPECT_EQ(codeOf(read), row.error) << row.path;
        EXPECT_EQ(read ? read->bytes : "", row.bytes) << row.path;
    }
    EXPECT_EQ(codeOf(readRegular(root / "link", 100, FinalLink::refused)), ELOOP);
    EXPECT_EQ(codeOf(readRegular(root / "full", 100, FinalLink::refused)), 0);
    EXPECT_THAT(readRegular("/proc/self/limits", 1 << 20)->bytes, AllOf(HasSubstr("Max open files"), EndsWith("\n")));
}

// What was wrong when reading beneath a directory, row by row; empty when all is well.
std::string beneathFaults(const support::TemporaryDirectory& root) {
    const std::pair<std::string, int> rows[] = {
        {"sub/file", 0},
        {"./sub//./file", 0},
        {"sub/../sub/file", EXDEV},
        {"../outside", EXDEV},
        {root / "bundle/sub/file", EXDEV},
        {"link", ELOOP},
        {"out/outside", -1},  // through a link: which error depends on the way of opening
        {"sub", EISDIR},
        {".", EISDIR},
        {"", ENOENT},
        {"sub/file/more", ENOTDIR},
        {"sub/absent", ENOENT},
        {"pipe", EINVAL},
        {"sub/file\0"s, EINVAL},
    };
    std::string faults;
    const UniqueFd directory{::open((root / "bundle").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
    for (const auto& [name, error] : rows) {
        const auto read = readRegularBeneath(directory.get(), name, 100);
        const bool asExpected = error < 0 ? !read.ok() : codeOf(read) == error;
        if (!asExpected || openRegularBeneath(directory.get(), name).ok() != read.ok() ||
            (read && read->bytes != "inside"))
            faults += name + ": " + whyNot(read) + "\n";
    }
    return faults;
}

// From here on the kernel does not know openat2.
bool forgetOpenat2() {
    sock_filter program[] = {
        {BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
        {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, SYS_openat2},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | ENOSYS},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
    };
    const sock_fprog filter{std::size(program), program};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0 &&
           ::syscall(SYS_openat2, AT_FDCWD, "/", nullptr, 0) == -1 && errno == ENOSYS;
}

TEST(ReadRegularBeneath, NeverLeavesTheDirectoryWhetherOrNotTheKernelHelps) {
    const support::TemporaryDirectory root;
    root.write("outside", "outside");
    root.write("bundle/sub/file", "inside");
    ASSERT_EQ(::mkfifo((root / "bundle/pipe").c_str(), 0600), 0);
    fs::create_symlink("sub/file", root / "bundle/link");
    fs::create_symlink("..", root / "bundle/out");
    EXPECT_EQ(beneathFaults(root), "");
    EXPECT_EQ(support::inChildProcess([&] { return forgetOpenat2() ? beneathFaults(root) : "no filter"; }), "");
}

Texts entriesIn(const std::string& directory) {
    Texts names;
    for (const auto& entry : fs::directory_iterator{directory}) names.push_back(entry.path().filename());
    return names;
}

TEST(WriteAtomically, ReplacesTheFileByAPrivateOneOfAnotherStampThroughLinks) {
    const support::TemporaryDirectory root;
    const std::string path = root.write("real/file", "old");
    fs::create_symlink("real/file", root / "first");
    fs::create_symlink(root / "first", root / "second");
    fs::create_symlink("real/absent", root / "dangling");
    const auto before = readRegular(path, 100);
    EXPECT_EQ(stampOf(path), before->stamp);
    EXPECT_FALSE(settled(*stampOf(path)));
    EXPECT_TRUE(settled(*stampOf("/usr")));
    EXPECT_FALSE(writeAtomically(root / "second", "new"));
    const auto after = readRegular(path, 100);
    EXPECT_EQ(after->bytes, "new");
    EXPECT_EQ(after->mode & 07777U, 0600U);
    EXPECT_NE(after->stamp, before->stamp);
    EXPECT_TRUE(fs::is_symlink(root / "second"));
    EXPECT_FALSE(writeAtomically(root / "dangling", "made"));
    EXPECT_EQ(readRegular(root / "real/absent", 100)->bytes, "made");
    EXPECT_THAT(entriesIn(root / "real"), testing::UnorderedElementsAre("file", "absent"));
}

TEST(WriteAtomically, LeavesNothingBehindWhenItFails) {
    const support::TemporaryDirectory root;
    root.write("directory/inside", "kept");
    fs::create_symlink("loop", root / "loop");
    ASSERT_EQ(::mkfifo((root / "pipe").c_str(), 0600), 0);
    const std::pair<const char*, int> rows[] = {
        {"directory", EISDIR},
        {"directory/", EISDIR},
        {"directory/..", EISDIR},
        {"absent/file", ENOENT},
        {"directory/inside/file", ENOTDIR},
        {"loop", ELOOP},
        {"pipe", EINVAL},
    };
    for (const auto& [name, code] : rows) EXPECT_EQ(codeOf(writeAtomically(root / name, "x")), code) << name;
    EXPECT_EQ(readRegular(root / "directory/inside", 100)->bytes, "kept");
    EXPECT_THAT(entriesIn(root.path()), testing::UnorderedElementsAre("directory", "loop", "pipe"));
    EXPECT_THAT(entriesIn(root / "directory"), ElementsAre("inside"));
}

}  // namespace
}  // namespace file
