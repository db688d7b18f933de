#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The system log. One call is one line: control characters that came from outside are escaped, so that no text can
// forge a second line. Lines go to standard error, with the journal's level prefix when standard error is the journal's
// (JOURNAL_STREAM), or to syslog when it is closed or the null device. A reader that stalls never stalls the caller:
// lines are dropped and counted, and the count goes before the next line that finds room. A message is cut after 4 KiB,
// one of the levels info and debug (which hold dumps) after 64 KiB, and then ends with its full size.
//
// Threading: every function may be called from any thread.
namespace logging {

// The values are the system log's own priorities.
enum class Level { error = 3, warning = 4, notice = 5, info = 6, debug = 7 };

void write(Level level, std::string_view message);

inline void error(std::string_view message) {
    write(Level::error, message);
}
inline void warning(std::string_view message) {
    write(Level::warning, message);
}
inline void notice(std::string_view message) {
    write(Level::notice, message);
}
inline void info(std::string_view message) {
    write(Level::info, message);
}

// What a line quotes of a text that may be long, when more is to come behind it: the text, or its first 3 KiB and its
// full size.
std::string excerpt(std::string_view text);

// While one exists, the lines that its thread writes are kept, as far as they fit into 4 KiB: so that what was found
// out once can be said again, or be said when somebody asks. Belongs to one thread; scopes nest, and the innermost
// counts.
class Transcript {
public:
    struct Line {
        Level level;
        std::string text;
    };
    using Lines = std::vector<Line>;

    enum class Writing : bool { now, later };  // later: the lines are kept, and not written
    explicit Transcript(Writing writing = Writing::now);
    ~Transcript();
    Transcript(const Transcript&) = delete;
    Transcript& operator=(const Transcript&) = delete;

    // Whether the line is to be written.
    bool keep(Level level, std::string_view line);
    Lines lines() && { return std::move(lines_); }

private:
    Transcript* const before_;
    const Writing writing_;
    std::size_t size_ = 0;
    Lines lines_;
};

// Writes the lines as they were written before.
void repeat(const Transcript::Lines& lines);

// Receives every line instead of the log, already escaped, on the writing thread. An empty sink restores the log.
using Sink = std::function<void(Level, std::string_view)>;
void setSink(Sink sink);

// An invariant of ours is broken: writes "CONDITION (UNIT)" and ends the process. Never called because of what a peer
// or a file contains.
[[noreturn]] void internalInconsistency(std::string_view condition, std::string_view unit);

}  // namespace logging
