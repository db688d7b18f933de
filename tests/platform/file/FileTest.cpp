#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <cstddef>

#include "platform/file/File.h"
#include "tests/support/ChildProcess.h"
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

TEST(EncodedName, LeavesPlainTextAndEscapesWhatAFileNameMustNotHold) {
    const struct {
        std::string text, name;
    } rows[] = {{"org.example.Plug-In_1", "org.example.Plug-In_1"},
                {"", "%empty"},
                {"..", "%2E%2E"},
                {"../etc", "%2E%2E%2Fetc"},
                {"a..b", "a..b"},
                {"a@1%", "a%401%25"},
                {"a\0\n\x7F"s, "a%00%0A%7F"},
                {"\xC3\xA9\xE2\x82\xAC", "\xC3\xA9\xE2\x82\xAC"},
                {"\xC3\xA9\xC3", "\xC3\xA9%C3"},
                {"\xC0\xAF\xED\xA0\x80", "%C0%AF%ED%A0%80"},
                {std::string(200, 'x'), std::string(200, 'x')}};
    for (const auto& row : rows) EXPECT_EQ(encodedName(row.text), row.name);
}

TEST(EncodedName, LongTextsStayShortAndDifferent) {
    const std::string stem(199, 'x');
    const std::string a = encodedName(stem + "ab"), b = encodedName(stem + "ac");
    EXPECT_NE(a, b);
    EXPECT_EQ(a.size(), 200U);
    EXPECT_NE(encodedName(a), a) << "no text gives the name of a longer one";
    // Neither an escape nor a character is cut in two.
    for (const std::string unit : {"/", "\xF0\x9F\x8D\x90"}) {
        std::string text = "y";
        while (text.size() < 300) text += unit;
        const std::string name = encodedName(text);
        EXPECT_LE(name.size(), 200U);
        EXPECT_EQ((name.find("%~") - 1) % (unit == "/" ? 3 : 4), 0U) << name;
    }
}

TEST(ReadRegular, TakesRegularFilesWholeAndRefusesAllElseWithoutBlocking) {
    const support::TemporaryDirectory root;
    root.write("full", "content");
    root.write("empty", "");
    ASSERT_EQ(::mkfifo((root / "pipe").c_str(), 0600), 0);
    ASSERT_EQ(::symlink("full", (root / "link").c_str()), 0);
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
        EXPECT_EQ(read ? 0 : read.error().code, row.error) << row.path;
        EXPECT_EQ(read ? read->bytes : "", row.bytes) << row.path;
    }
    EXPECT_EQ(readRegular(root / "link", 100, FinalLink::refused).error().code, ELOOP);
    EXPECT_TRUE(readRegular(root / "full", 100, FinalLink::refused));
    const auto procfs = readRegular("/proc/self/limits", 1 << 20);
    ASSERT_TRUE(procfs);
    EXPECT_NE(procfs->bytes.find("Max open files"), std::string::npos);
    EXPECT_EQ(procfs->bytes.back(), '\n');
}

TEST(ReadRegular, StampTellsAChangedFileFromAnUnchangedOne) {
    const support::TemporaryDirectory root;
    const std::string path = root.write("file", "one");
    const auto before = readRegular(path, 100);
    ASSERT_TRUE(before);
    EXPECT_EQ(stampOf(path), before->stamp);
    EXPECT_FALSE(settled(*stampOf(root.write("new", "x"))));
    EXPECT_TRUE(settled(*stampOf("/usr")));
    ASSERT_FALSE(writeAtomically(path, "two"));
    EXPECT_NE(stampOf(path), before->stamp);
    EXPECT_FALSE(stampOf(root / "absent"));
}

// What was wrong when reading beneath a directory, row by row; empty when all is well.
std::string beneathFaults(const support::TemporaryDirectory& root) {
    const struct {
        std::string name;
        int error;
    } rows[] = {
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
    for (const auto& row : rows) {
        const auto read = readRegularBeneath(directory.get(), row.name, 100);
        const auto opened = openRegularBeneath(directory.get(), row.name);
        const std::int64_t error = read ? 0 : read.error().code;
        const bool asExpected = row.error < 0 ? error != 0 : error == row.error;
        if (!asExpected || opened.ok() != read.ok()) faults += row.name + ": " + std::to_string(error) + "\n";
        if (read && read->bytes != "inside") faults += row.name + ": another file\n";
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
    ASSERT_EQ(::symlink("sub/file", (root / "bundle/link").c_str()), 0);
    ASSERT_EQ(::symlink("..", (root / "bundle/out").c_str()), 0);
    EXPECT_EQ(beneathFaults(root), "");
    EXPECT_EQ(support::inChildProcess([&] { return forgetOpenat2() ? beneathFaults(root) : "no filter"; }), "");
}

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
