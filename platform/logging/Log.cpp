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

// The beginning of a text, without a torn character.
std::string_view beginning(std::string_view text, std::size_t longest) {
    if (text.size() <= longest) return text;
    std::size_t end = longest;
    while (end + 4 > longest && (static_cast<unsigned char>(text[end]) & 0xc0U) == 0x80U) --end;
    return text.substr(0, end);
}

std::string cutMark(std::size_t whole) {
    return text::format("... (cut, {} bytes in all)", whole);
}

std::string lineOf(Level level, std::string_view message) {
    const std::string_view kept = beginning(message, level >= Level::info ? kLongestDump : kLongest);
    std::string line;
    line.reserve(kept.size());
    appendEscaped(line, kept);
    if (kept.size() < message.size()) line += cutMark(message.size());
    static_cast<void>(effort::take(kUnitsALine + line.size()));
    return line;
}

void writeOut(Log& log, Level level, std::string_view line) {
    const std::lock_guard lock{log.mutex};
    log.outlet.write(level, line);
}

void deliver(Level level, const std::string& line) {
    Log& log = theLog();
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

constinit thread_local Transcript* transcript = nullptr;

}  // namespace

void write(Level level, std::string_view message) {
    const std::string line = lineOf(level, message);
    if (transcript == nullptr || transcript->keep(level, line)) deliver(level, line);
}

Transcript::Transcript(Writing writing) : before_{std::exchange(transcript, this)}, writing_{writing} {}

Transcript::~Transcript() {
    transcript = before_;
}

bool Transcript::keep(Level level, std::string_view line) {
    const std::string_view kept = beginning(line, kLongest - size_);
    if (!kept.empty()) lines_.push_back({level, std::string{kept}});
    size_ += kept.size();
    return writing_ == Writing::now;
}

void repeat(const Transcript::Lines& lines) {
    for (const Transcript::Line& line : lines) {
        static_cast<void>(effort::take(kUnitsALine + line.text.size()));
        deliver(line.level, line.text);
    }
}

std::string excerpt(std::string_view text) {
    constexpr std::size_t kLongestExcerpt = std::size_t{3} << 10;
    const std::string_view kept = beginning(text, kLongestExcerpt);
    return kept.size() < text.size() ? std::string{kept} + cutMark(text.size()) : std::string{kept};
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
