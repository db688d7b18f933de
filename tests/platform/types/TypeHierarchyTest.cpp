#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/logging/Log.h"
#include "platform/paths/Paths.h"
#include "platform/types/TypeHierarchy.h"
#include "tests/support/TemporaryDirectory.h"

namespace types {
namespace {

class TypeHierarchy : public testing::Test {
protected:
    TypeHierarchy() {
        paths::Directories directories;
        directories.systemVolume = root / "system";
        paths::setDirectories(directories);
        setenv("XDG_DATA_HOME", (root / "home").c_str(), 1);
        setenv("XDG_DATA_DIRS", ("relative:" + (root / "one") + ":" + (root / "two")).c_str(), 1);
        logging::setSink([this](logging::Level, std::string_view line) { lines.emplace_back(line); });
    }
    ~TypeHierarchy() override { logging::setSink({}); }

    // A change shows soon, not at once.
    static bool becomes(bool expected, std::string_view a, std::string_view b) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds{10};
        while (conforms(a, b) != expected) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::yield();
        }
        return true;
    }

    const support::TemporaryDirectory root;
    std::vector<std::string> lines;
};

TEST_F(TypeHierarchy, IsTransitiveOverAllItsFilesAndEndsInCycles) {
    root.write("system/Types.plist",
               "<plist version=\"1.0\"><dict>"
               "<key>halvern.jpeg</key><string>halvern.image</string>"
               "<key>halvern.image</key><array><string>halvern.data</string><integer>7</integer>"
               "<string>halvern.content</string></array>"
               "<key>halvern.note</key><string>text/x-c</string>"
               "<key>loop.a</key><string>loop.b</string><key>loop.b</key><string>loop.a</string>"
               "<key>odd</key><true/></dict></plist>");
    root.write("one/mime/subclasses",
               "# a comment\ntext/x-c text/plain\nthree words here\n\nlone\ntext/x-c++ text/x-c");
    root.write("two/mime/aliases", "text/x-csrc text/x-c\n");
    root.write("home/mime/subclasses", "my/own text/x-c++\n");

    ASSERT_TRUE(becomes(true, "halvern.jpeg", "halvern.data"));
    const struct {
        const char *a, *b;
        bool conform;
    } rows[] = {
        {"halvern.jpeg", "halvern.content", true},
        {"halvern.data", "halvern.jpeg", false},
        {"halvern.image", "halvern.jpeg", false},
        {"unknown", "unknown", true},
        {"unknown", "halvern.data", false},
        {"halvern.data", "unknown", false},
        {"Halvern.jpeg", "halvern.image", false},
        {"loop.a", "loop.b", true},
        {"loop.a", "halvern.data", false},
        {"text/x-c++", "text/plain", true},
        {"text/x-csrc", "text/plain", true},
        {"text/x-c", "text/x-csrc", true},
        {"my/own", "text/x-csrc", true},
        {"halvern.note", "text/plain", true},
        {"three", "words", false},
        {"", "", true},
        {"#", "a", false},
        {"text/plain", "text/x-c", false},
    };
    for (const auto& row : rows) EXPECT_EQ(conforms(row.a, row.b), row.conform) << row.a << " to " << row.b;
}

TEST_F(TypeHierarchy, FollowsItsFilesAndComplainsOnceForEachChange) {
    const auto declare = [&](const std::string& supertype) {
        root.write("system/Types.plist",
                   "<plist version=\"1.0\"><dict><key>t</key><string>" + supertype + "</string></dict></plist>");
    };
    declare("a");
    ASSERT_TRUE(becomes(true, "t", "a"));
    declare("b");
    EXPECT_TRUE(becomes(true, "t", "b"));
    EXPECT_FALSE(conforms("t", "a"));
    EXPECT_TRUE(lines.empty());
    root.write("system/Types.plist", "no list");
    EXPECT_TRUE(becomes(false, "t", "b"));
    root.write("one/mime/subclasses", "t c\n");
    EXPECT_TRUE(becomes(true, "t", "c"));
    EXPECT_GE(lines.size(), 1U);
    EXPECT_LE(lines.size(), 2U) << "one for the list, perhaps one more when the other file came";
}

TEST_F(TypeHierarchy, AnswersForALongChain) {
    std::string chain;
    for (int i = 0; i < 50'000; ++i) chain += "t" + std::to_string(i) + " t" + std::to_string(i + 1) + "\n";
    root.write("one/mime/subclasses", chain);
    EXPECT_TRUE(becomes(true, "t0", "t50000"));
    EXPECT_FALSE(conforms("t50000", "t0"));
}

}  // namespace
}  // namespace types
