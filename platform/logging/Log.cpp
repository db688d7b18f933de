#include "platform/logging/Log.h"

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <utility>

#include "platform/effort/Effort.h"
#include "platform/logging/Escape.h"
#include "platform/logging/Outlet.h"
#include "platform/text/Format.h"

namespace logging {
namespace {

// What is kept of a message, most of whose length comes from outside: enough to recognise what it is about, and so
// little that nobody pays much for writing it. What is only written when somebody asked for all (dumps of whole
// messages) may be longer.
constexpr std::size_t kLongest = std::size_t{4} << 10;
constexpr std::size_t kLongestDump = std::size_t{64} << 10;

constexpr std::uint64_t kUnitsALine = 5 * effort::kUnitsAMicrosecond;  // the reader's share aside

std::string_view cut(Level level, std::string_view message) {
    const std::size_t longest = level >= Level::info ? kLongestDump : kLongest;
    if (message.size() <= longest) return message;
    std::size_t end = longest;
    while (end + 4 > longest && (static_cast<unsigned char>(message[end]) & 0xc0U) == 0x80U)
        --end;  // no character torn
    return message.substr(0, end);
}

struct Log {
    std::mutex mutex;
    Outlet outlet{"/dev/log"};
    std::shared_ptr<const Sink> sink;
};

// Never destroyed: threads log until the very end.
Log& theLog() {
    static Log& log = *new Log;
    return log;
}

std::string lineOf(Level level, std::string_view message) {
    const std::string_view kept = cut(level, message);
    std::string line;
    line.reserve(kept.size());
    appendEscaped(line, kept);
    if (kept.size() < message.size()) line += text::format("... (cut, {} bytes in all)", message.size());
    static_cast<void>(effort::take(kUnitsALine + line.size()));
    return line;
}

void writeOut(Log& log, Level level, std::string_view line) {
    const std::lock_guard lock{log.mutex};
    log.outlet.write(level, line);
}

}  // namespace

void write(Level level, std::string_view message) {
    Log& log = theLog();
    const std::string line = lineOf(level, message);
    std::shared_ptr<const Sink> sink;
    {
        const std::lock_guard lock{log.mutex};
        sink = log.sink;
    }
    if (sink) {
        (*sink)(level, line);
    } else {
        writeOut(log, level, line);
    }
}

void setSink(Sink sink) {
    std::shared_ptr<const Sink> next = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
    const std::lock_guard lock{theLog().mutex};
    std::swap(theLog().sink, next);
}

void internalInconsistency(std::string_view condition, std::string_view unit) {
    writeOut(theLog(), Level::error, lineOf(Level::error, text::format("{} ({})", condition, unit)));
    std::abort();
}

}  // namespace logging
