#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/lock/LockFile.h"

namespace {

using testing::HasSubstr;

class LockFileTest : public testing::Test {
protected:
    LockFileTest() {
        std::string pattern = std::filesystem::temp_directory_path() / "vtd-lock-XXXXXX";
        root_ = ::mkdtemp(pattern.data());
    }
    ~LockFileTest() override { std::filesystem::remove_all(root_); }

    std::filesystem::path root_;
};

TEST_F(LockFileTest, AnotherTakerLearnsWhoHoldsIt) {
    const std::string path = root_ / "guarded.lock";
    {
        const auto first = lock::LockFile::take(path);
        ASSERT_TRUE(first);
        const auto second = lock::LockFile::take(path);
        ASSERT_FALSE(second);
        EXPECT_EQ(second.error().code, EWOULDBLOCK);
        EXPECT_THAT(*second.error().message, HasSubstr("process " + std::to_string(::getpid()) + " holds the lock"));
    }
    EXPECT_TRUE(lock::LockFile::take(path)) << "given back with the object";
}

TEST_F(LockFileTest, AKilledHolderLetsGo) {
    const std::string path = root_ / "guarded.lock";
    std::array<int, 2> held{};
    ASSERT_EQ(::pipe(held.data()), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        const auto mine = lock::LockFile::take(path);
        const char told = mine ? '+' : '-';
        if (::write(held[1], &told, 1) == 1) ::pause();
        ::_exit(1);
    }
    char told = '?';
    ASSERT_EQ(::read(held[0], &told, 1), 1);
    EXPECT_EQ(told, '+');
    EXPECT_FALSE(lock::LockFile::take(path));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_TRUE(lock::LockFile::take(path));
    ::close(held[0]);
    ::close(held[1]);
}

TEST_F(LockFileTest, WhatIsNoRegularFileIsAnErrorAndNoHang) {
    ASSERT_EQ(::mkfifo((root_ / "pipe").c_str(), 0600), 0);
    std::ofstream{root_ / "target"} << "precious";
    std::filesystem::create_symlink("target", root_ / "link");
    for (const char* name : {"pipe", "link", ".", "missing/lock"}) {
        EXPECT_FALSE(lock::LockFile::take(root_ / name)) << name;
    }
    EXPECT_EQ(std::filesystem::file_size(root_ / "target"), 8u);
}

}  // namespace
