#include "platform/file/UniqueFd.h"
#include "platform/logging/Log.h"
#include "platform/logging/Outlet.h"
#include "platform/text/Format.h"
#include "tests/support/BoundSocket.h"
#include "tests/support/Words.h"

namespace logging {
namespace {

// Standard error is another file for as long as this exists.
class StandardError {
public:
    explicit StandardError(int fd) : before_{::dup(STDERR_FILENO)} { ::dup2(fd, STDERR_FILENO); }
    ~StandardError() { ::dup2(before_.get(), STDERR_FILENO); }

private:
    const file::UniqueFd before_;
};

struct Ends {
    file::UniqueFd reader, writer;
};

Ends ends(bool ofASocket) {
    std::array<int, 2> fds{};
    EXPECT_EQ(ofASocket ? ::socketpair(AF_UNIX, SOCK_STREAM, 0, fds.data()) : ::pipe(fds.data()), 0);
    return {file::UniqueFd{fds[0]}, file::UniqueFd{fds[1]}};
}

std::string takeAll(const file::UniqueFd& reader) {
    ::fcntl(reader.get(), F_SETFL, O_NONBLOCK);
    std::string all;
    std::array<char, 65536> block{};
    for (ssize_t count; (count = ::read(reader.get(), block.data(), block.size())) > 0;)
        all.append(block.data(), count);
    return all;
}

TEST(Log, EscapesWhatCouldForgeALine) {
    const std::pair<std::string_view, std::string_view> rows[] = {
        {"plain \\ \"quoted\" gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80",
         "plain \\ \"quoted\" gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80"},
        {"one\ntwo\r\tthree", "one\\ntwo\\r\\tthree"},
        {{"\x1b[31mred\x7f nul\0", 14}, "\\x1b[31mred\\x7f nul\\x00"},
        {"next line \xc2\x85", "next line \\u0085"},
        {"separator \xe2\x80\xa8, override \xe2\x80\xae", "separator \\u2028, override \\u202e"},
        {"overlong \xc0\x8a \xe0\x80\x8a lone \xc3", "overlong \\xc0\\x8a \\xe0\\x80\\x8a lone \\xc3"},
    };
    support::LogLines log;
    for (const auto& [given, line] : rows) {
        notice(given);
        EXPECT_THAT(log.take(Level::notice), ElementsAre(line));
    }
    const std::string most(65'535, 'x');
    info(most + "\xe2\x82\xac");  // a character that would be torn
    EXPECT_THAT(log.take(Level::info), ElementsAre(most + "... (cut, 65538 bytes in all)"));
}

TEST(Log, WritesOneLineACallWithTheJournalsPrefixOnlyForTheJournal) {
    const Ends plain = ends(false), journal = ends(true);
    struct stat status {};
    ASSERT_EQ(::fstat(journal.writer.get(), &status), 0);
    ::setenv("JOURNAL_STREAM", text::format("{}:{}", status.st_dev, status.st_ino).c_str(), 1);
    for (const Ends* to : {&plain, &journal}) {
        const StandardError redirected{to->writer.get()};
        notice("a\nb");
        error(std::string(40'000, 'x'));
    }
    ::unsetenv("JOURNAL_STREAM");
    const std::string cut = std::string(4096, 'x') + "... (cut, 40000 bytes in all)\n";
    EXPECT_EQ(takeAll(plain.reader), "a\\nb\n" + cut);
    EXPECT_EQ(takeAll(journal.reader), "<5>a\\nb\n<3>" + cut);
}

// A reader that does not read: the caller goes on, whole lines are lost and counted, and no line is torn.
TEST(Log, DropsAndCountsWhenItsReaderStalls) {
    for (const bool ofASocket : {false, true}) {
        const Ends stalled = ends(ofASocket);
        const StandardError redirected{stalled.writer.get()};
        constexpr std::size_t kWritten = 5000;
        const std::string message(999, 'x');
        for (std::size_t i = 0; i < kWritten; ++i) notice(message);
        EXPECT_EQ(::fcntl(stalled.writer.get(), F_GETFL) & O_NONBLOCK, 0) << "others share this open file";
        std::string all = takeAll(stalled.reader);
        notice("after");
        all += takeAll(stalled.reader);

        std::size_t whole = 0;
        for (; all.starts_with(message + '\n'); ++whole) all.erase(0, message.size() + 1);
        EXPECT_GT(whole, 0);
        EXPECT_EQ(all, text::format("lines dropped because the log was full: {}\nafter\n", kWritten - whole));
    }
}

TEST(Log, SurvivesAReaderThatIsGone) {
    for (const bool ofASocket : {false, true}) {
        Ends broken = ends(ofASocket);
        const StandardError redirected{broken.writer.get()};
        broken.reader.reset();
        notice("nobody reads this");
    }
}

TEST(Log, TurnsToTheSystemLogWhenStandardErrorIsTheNullDevice) {
    const support::TemporaryDirectory root;
    const support::BoundSocket daemon{root / "log"};
    const file::UniqueFd null{::open("/dev/null", O_WRONLY | O_CLOEXEC)};
    const StandardError redirected{null.get()};
    Outlet outlet{root / "log"};
    for (int moreThanASocketTakes = 10'000; moreThanASocketTakes > 0; --moreThanASocketTakes) {
        outlet.write(Level::notice, "hello");
    }
    EXPECT_THAT(daemon.receive(), testing::MatchesRegex(text::format("<29>.* logging_test.{}.: hello", ::getpid())));
    while (!daemon.receive().empty()) {
    }
    outlet.write(Level::notice, "after");
    EXPECT_THAT(daemon.receive(), testing::MatchesRegex("<28>.*: lines dropped because the log was full: [0-9]+"));
    EXPECT_THAT(daemon.receive(), EndsWith(": after"));
}

}  // namespace
}  // namespace logging
