#include "platform/logging/Log.h"

#include <cstdlib>
#include <memory>
#include <mutex>
#include <utility>

#include "platform/logging/Escape.h"
#include "platform/logging/Outlet.h"
#include "platform/text/Format.h"

namespace logging {
namespace {

// What a reader of lines takes as one line; a longer one ends with the count of what was left out.
constexpr std::size_t kLongestMessage = 32'768;

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

std::string lineOf(std::string_view message) {
    std::string line;
    appendEscaped(line, message.substr(0, kLongestMessage));
    if (message.size() > kLongestMessage) {
        line += text::format("... ({} more bytes)", message.size() - kLongestMessage);
    }
    return line;
}

void writeOut(Log& log, Level level, std::string_view line) {
    const std::lock_guard lock{log.mutex};
    log.outlet.write(level, line);
}

}  // namespace

void write(Level level, std::string_view message) {
    Log& log = theLog();
    const std::string line = lineOf(message);
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
    writeOut(theLog(), Level::error, lineOf(text::format("{} ({})", condition, unit)));
    std::abort();
}

}  // namespace logging
