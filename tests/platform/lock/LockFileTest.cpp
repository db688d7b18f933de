#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

#include "platform/lock/LockFile.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Words.h"

namespace {

TEST(LockFile, IsHeldUntilItGoesOrItsHolderIsKilled) {
    const support::TemporaryDirectory root;
    const std::string path = root / "guarded.lock";
    {
        const auto first = lock::LockFile::take(path);
        ASSERT_TRUE(first);
        EXPECT_THAT(whyNot(lock::LockFile::take(path)),
                    HasSubstr("process " + std::to_string(::getpid()) + " holds the lock"));
    }
    std::array<int, 2> held{};
    ASSERT_EQ(::pipe(held.data()), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        const auto mine = lock::LockFile::take(path);
        if (::write(held[1], mine ? "+" : "-", 1) == 1) ::pause();
        ::_exit(1);
    }
    char told = '?';
    ASSERT_EQ(::read(held[0], &told, 1), 1);
    EXPECT_EQ(told, '+');
    EXPECT_FALSE(lock::LockFile::take(path));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_TRUE(lock::LockFile::take(path));
    for (const int end : held) ::close(end);
}

TEST(LockFile, WhatIsNoRegularFileIsAnErrorAndNoHang) {
    const support::TemporaryDirectory root;
    ASSERT_EQ(::mkfifo((root / "pipe").c_str(), 0600), 0);
    fs::create_symlink(root.write("target", "precious"), root / "link");
    for (const char* name : {"pipe", "link", ".", "missing/lock"})
        EXPECT_FALSE(lock::LockFile::take(root / name)) << name;
    EXPECT_EQ(fs::file_size(root / "target"), 8U);
}

}  // namespace
