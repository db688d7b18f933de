#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstddef>

#include "platform/file/File.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Words.h"

namespace file {
namespace {

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

}  // namespace
}  // namespace file
