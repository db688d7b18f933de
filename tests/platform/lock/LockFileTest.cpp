#include "platform/lock/LockFile.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Words.h"

namespace {

TEST(LockFile, IsHeldUntilItGoesOrItsHolderIsKilled) {
    const support::TemporaryDirectory root;
    const std::string path = root / "guarded.lock";
    EXPECT_TRUE(lock::LockFile::take(path));
    std::optional<value::Result<lock::LockFile>> theirs;
    support::ChildProcess holder{[&] { return whyNot(theirs.emplace(lock::LockFile::take(path))); }};
    EXPECT_EQ(holder.told(), "");
    EXPECT_THAT(whyNot(lock::LockFile::take(path)),
                HasSubstr("process " + std::to_string(holder.pid()) + " holds the lock"));
    holder.end();
    EXPECT_TRUE(lock::LockFile::take(path));
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
