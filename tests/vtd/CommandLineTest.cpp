#include <filesystem>
#include <numeric>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TemporaryDirectory.h"
#include "tests/vtd/DaemonProcess.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::SizeIs;

constexpr char kUsage[] = "Usage: vtd [-S servicename] [-v]\n";

std::string joined(const std::vector<std::string>& writes) {
    return std::accumulate(writes.begin(), writes.end(), std::string{});
}

TEST(CommandLine, AWrongOneIsAnsweredWithTheUsage) {
    const struct {
        std::vector<std::string> arguments;
        std::string diagnostic;  // getopt's, in its own words
    } rows[] = {{{"extra"}, ""},    {{"-v", "-S", "name", "extra"}, ""},
                {{"-x"}, "'x'"},    {{"-c"}, "'c'"},
                {{"-d"}, "'d'"},    {{"-v", "-S"}, "'S'"},
                {{"--help"}, "'-'"}};
    const support::TemporaryDirectory root;
    for (const auto& row : rows) {
        DaemonProcess daemon{root.path(), row.arguments};
        EXPECT_EQ(daemon.awaitExit(), 2) << row.arguments.back();
        std::vector<std::string> writes = daemon.takeWrites();
        ASSERT_FALSE(writes.empty());
        EXPECT_EQ(writes.back(), kUsage) << "one block of its own";
        writes.pop_back();
        EXPECT_EQ(writes.empty(), row.diagnostic.empty());
        EXPECT_THAT(joined(writes), HasSubstr(row.diagnostic));
    }
    EXPECT_THAT(std::string{kUsage}, SizeIs(33));
}

TEST(CommandLine, ARightOneServesUnderTheNameAndFromTheFileItGives) {
    const struct {
        std::vector<std::string> arguments;
        std::string service;
    } rows[] = {{{}, "halvern.velto.vtd"},
                {{"-vvv", "-c", "abc", "-c", "7", "-S", "first", "-S", "last"}, "last"},
                {{"-v", "--"}, "halvern.velto.vtd"}};
    for (const auto& row : rows) {
        const support::TemporaryDirectory root;
        const DaemonProcess daemon{root.path(), row.arguments};
        EXPECT_TRUE(daemon.awaitReady()) << row.service << joined(daemon.takeWrites());
        bool listens = false;
        for (const auto& entry : std::filesystem::recursive_directory_iterator{root / "run"}) {
            listens |= entry.is_socket() && entry.path().filename().string().starts_with(row.service);
        }
        EXPECT_TRUE(listens) << row.service;
        EXPECT_TRUE(std::filesystem::is_directory(root / "state/halvern.velto"));
    }
}

TEST(CommandLine, ASecondDaemonSaysWhoIsInItsWayAndEnds) {
    const support::TemporaryDirectory root;
    const support::TemporaryDirectory other;
    const std::string annotations = root / "annotations";
    const DaemonProcess first{root.path(), {"-d", annotations}};
    ASSERT_TRUE(first.awaitReady()) << joined(first.takeWrites());

    const struct {
        std::string name;
        std::string root;
        std::vector<std::string> arguments;
    } rows[] = {{"the same state directory", root.path(), {"-S", "another", "-d", root / "more"}},
                {"the same annotation file", other.path(), {"-d", annotations}}};
    for (const auto& row : rows) {
        DaemonProcess second{row.root, row.arguments};
        EXPECT_EQ(second.awaitExit(), 1) << row.name;
        EXPECT_THAT(joined(second.takeWrites()),
                    AllOf(HasSubstr(std::to_string(first.pid())), HasSubstr("unable to construct server")))
            << row.name;
    }
}

TEST(CommandLine, AServiceThatCannotListenSaysWhyAndEnds) {
    const support::TemporaryDirectory root;
    DaemonProcess daemon{root.path(), {"-S", "no/such/name"}};
    EXPECT_EQ(daemon.awaitExit(), 1);
    EXPECT_THAT(joined(daemon.takeWrites()), HasSubstr("no/such/name"));
}

}  // namespace
