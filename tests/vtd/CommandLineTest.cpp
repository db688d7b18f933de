#include <numeric>

#include "tests/support/Words.h"
#include "tests/vtd/DaemonProcess.h"

namespace {

constexpr char kUsage[] = "Usage: vtd [-S servicename] [-v]\n";

std::string joined(const Texts& writes) {
    return std::accumulate(writes.begin(), writes.end(), std::string{});
}

TEST(CommandLine, AWrongOneIsAnsweredWithTheUsage) {
    const struct {
        Texts arguments;
        std::string diagnostic;  // getopt's, in its own words
    } rows[] = {{{"extra"}, ""},    {{"-v", "-S", "name", "extra"}, ""},
                {{"-x"}, "'x'"},    {{"-c"}, "'c'"},
                {{"-d"}, "'d'"},    {{"-v", "-S"}, "'S'"},
                {{"--help"}, "'-'"}};
    const support::TemporaryDirectory root;
    for (const auto& row : rows) {
        DaemonProcess daemon{root.path(), row.arguments};
        EXPECT_EQ(daemon.awaitExit(), 2) << row.arguments.back();
        Texts writes = daemon.takeWrites();
        ASSERT_FALSE(writes.empty());
        EXPECT_EQ(writes.back(), kUsage) << "one block of its own";
        writes.pop_back();
        EXPECT_EQ(writes.empty(), row.diagnostic.empty());
        EXPECT_THAT(joined(writes), HasSubstr(row.diagnostic));
    }
}

TEST(CommandLine, ARightOneServesUnderTheNameAndFromTheFileItGives) {
    const struct {
        Texts arguments;
        std::string service;
    } rows[] = {{{}, "halvern.velto.vtd"},
                {{"-vvv", "-c", "abc", "-c", "7", "-S", "first", "-S", "last"}, "last"},
                {{"-v", "--"}, "halvern.velto.vtd"}};
    for (const auto& row : rows) {
        const support::TemporaryDirectory root;
        const DaemonProcess daemon{root.path(), row.arguments};
        EXPECT_TRUE(daemon.awaitReady()) << row.service << joined(daemon.takeWrites());
        bool listens = false;
        for (const auto& entry : fs::recursive_directory_iterator{root / "run"}) {
            listens |= entry.is_socket() && entry.path().filename().string().starts_with(row.service);
        }
        EXPECT_TRUE(listens) << row.service;
        EXPECT_TRUE(fs::is_directory(root / "state/halvern.velto"));
    }
}

TEST(CommandLine, OneThatCannotBeServedSaysWhyAndEndsTheDaemon) {
    const support::TemporaryDirectory root;
    const support::TemporaryDirectory other;
    const std::string annotations = root / "annotations";
    const DaemonProcess first{root.path(), {"-d", annotations}};
    ASSERT_TRUE(first.awaitReady()) << joined(first.takeWrites());

    const std::string pid = std::to_string(first.pid());
    const struct {
        std::string root;
        Texts arguments;
        std::string line;
    } rows[] = {{root.path(), {"-S", "another", "-d", root / "more"}, pid},  // the same state directory
                {other.path(), {"-d", annotations}, pid},
                {other.path(), {"-S", "no/such/name"}, "no/such/name"}};
    for (const auto& row : rows) {
        DaemonProcess second{row.root, row.arguments};
        EXPECT_EQ(second.awaitExit(), 1) << row.line;
        EXPECT_THAT(joined(second.takeWrites()), HasSubstr(row.line));
    }
}

}  // namespace
