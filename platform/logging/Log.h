#pragma once

#include <functional>
#include <string>
#include <string_view>

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

// Receives every line instead of the log, already escaped, on the writing thread. An empty sink restores the log.
using Sink = std::function<void(Level, std::string_view)>;
void setSink(Sink sink);

// An invariant of ours is broken: writes "CONDITION (UNIT)" and ends the process. Never called because of what a peer
// or a file contains.
[[noreturn]] void internalInconsistency(std::string_view condition, std::string_view unit);

}  // namespace logging
