#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "platform/file/UniqueFd.h"
#include "platform/logging/Log.h"

namespace logging {

// Where lines go: standard error or, when that is closed or the null device, the system's log socket. Never blocks, and
// never makes standard error itself non-blocking, since its open file is shared with other processes. Instead:
//
// - a socket is sent to with a flag that says so for this one call;
// - a pipe or terminal is opened again, which gives an open file of our own that may be non-blocking; where that is
//   refused (it belongs to another user), only as much is written at once as a pipe that polls as writable takes whole;
// - a regular file is written as it is, each line behind its time (universal) and level: nobody else says them there.
//
// Which it is, is looked at again whenever standard error turns out to be another file than before. But one that was
// closed when the program started stays closed: whatever has its number now is no place for a log.
//
// Not thread-safe: the log's lock guards it.
class Outlet {
public:
    explicit Outlet(std::string systemLogPath) : systemLogPath_{std::move(systemLogPath)} {}

    // Writes the line, after the count of those dropped before it if there are any. Without room for both (or without a
    // log) this one is dropped as well. What is taken in part is not lost: the rest goes before the next line.
    void write(Level level, std::string_view line);

private:
    enum class Kind : std::uint8_t { unknown, file, socket, stream, shared, systemLog };

    void look();
    void become(const struct stat& standardError);
    [[nodiscard]] bool put(std::string_view bytes);
    [[nodiscard]] bool putToSystemLog(Level level, std::string_view line);
    std::string prefixed(Level level, std::string_view line) const;
    ssize_t attempt(std::string_view bytes) const;

    const std::string systemLogPath_;

    Kind kind_ = Kind::unknown;
    dev_t device_ = 0;  // of the file that kind_ is about
    ino_t inode_ = 0;
    bool isJournal_ = false;
    file::UniqueFd own_;  // stream: standard error opened again; systemLog: the socket
    std::string rest_;    // of what was taken in part
    std::size_t dropped_ = 0;
};

}  // namespace logging
