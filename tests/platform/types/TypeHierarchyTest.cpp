#include "platform/types/TypeHierarchy.h"
#include "tests/support/Words.h"

namespace types {
namespace {

class TypeHierarchy : public testing::Test {
protected:
    TypeHierarchy() {
        paths::Directories directories = paths::directories();
        directories.privateRoot = false;  // where it is, the machine's files of types do not count
        paths::setDirectories(directories);
        setenv("XDG_DATA_HOME", (root / "home").c_str(), 1);
        setenv("XDG_DATA_DIRS", ("relative:" + (root / "one") + ":" + (root / "two")).c_str(), 1);
    }

    // A change shows soon, not at once.
    static bool becomes(bool expected, std::string_view a, std::string_view b) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds{10};
        while (conforms(a, b) != expected && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
        return conforms(a, b) == expected;
    }

    const support::PrivateRoot root;
    support::LogLines log;
};

TEST_F(TypeHierarchy, IsTransitiveOverAllItsFilesHoweverLongTheChainAndEndsInCycles) {
    root.writeList("system/Types.plist", Dictionary{{"halvern.jpeg", "halvern.image"},
                                                    {"halvern.image", Array{"halvern.data", 7, "halvern.content"}},
                                                    {"halvern.note", "text/x-c"},
                                                    {"loop.a", "loop.b"},
                                                    {"loop.b", "loop.a"},
                                                    {"odd", true}});
    root.write("one/mime/subclasses",
               "# a comment\ntext/x-c text/plain\nthree words here\n\nlone\ntext/x-c++ text/x-c");
    root.write("two/mime/aliases", "text/x-csrc text/x-c\n");
    root.write("home/mime/subclasses", "my/own text/x-c++\n");
    std::string chain;
    for (int i = 0; i < 50'000; ++i) chain += "t" + std::to_string(i) + " t" + std::to_string(i + 1) + "\n";
    root.write("two/mime/subclasses", chain);

    ASSERT_TRUE(becomes(true, "halvern.jpeg", "halvern.data"));
    const struct {
        const char *a, *b;
        bool conform;
    } rows[] = {{"halvern.jpeg", "halvern.content", true},
                {"halvern.data", "halvern.jpeg", false},
                {"unknown", "halvern.data", false},
                {"Halvern.jpeg", "halvern.image", false},
                {"loop.a", "loop.b", true},
                {"loop.a", "halvern.data", false},
                {"text/x-csrc", "text/plain", true},
                {"my/own", "text/x-csrc", true},
                {"halvern.note", "text/plain", true},
                {"three", "words", false},
                {"t0", "t50000", true},
                {"t50000", "t0", false}};
    for (const auto& row : rows) EXPECT_EQ(conforms(row.a, row.b), row.conform) << row.a << " to " << row.b;
}

TEST_F(TypeHierarchy, FollowsItsFilesAndComplainsOnceForEachChange) {
    for (const char* supertype : {"a", "b"}) {
        root.writeList("system/Types.plist", Dictionary{{"t", supertype}});
        ASSERT_TRUE(becomes(true, "t", supertype));
    }
    EXPECT_FALSE(conforms("t", "a"));
    EXPECT_THAT(log.take(), IsEmpty());
    root.write("system/Types.plist", "no list");
    EXPECT_TRUE(becomes(false, "t", "b"));
    root.write("one/mime/subclasses", "t c\n");
    EXPECT_TRUE(becomes(true, "t", "c"));
    EXPECT_THAT(log.take().size(), AnyOf(1U, 2U)) << "one for the list, perhaps one more when the other file came";
}

}  // namespace
}  // namespace types
