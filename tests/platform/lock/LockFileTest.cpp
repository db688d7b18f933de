#include "platform/lock/LockFile.h"
#include "tests/support/Words.h"

namespace {

TEST(LockFile, WhatIsNoRegularFileIsAnErrorAndNoHang) {
    const support::TemporaryDirectory root;
    ASSERT_EQ(::mkfifo((root / "pipe").c_str(), 0600), 0);
    fs::create_symlink(root.write("target", "precious"), root / "link");
    for (const char* name : {"pipe", "link", ".", "missing/lock"})
        EXPECT_FALSE(lock::LockFile::take(root / name)) << name;
    EXPECT_EQ(fs::file_size(root / "target"), 8U);
}

}  // namespace
