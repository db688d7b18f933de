#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/logging/Log.h"

namespace support {

// Receives the log for as long as it lives.
class LogLines {
public:
    LogLines() {
        logging::setSink([this](logging::Level level, std::string_view line) {
            const std::lock_guard lock{mutex_};
            lines_.push_back({level, std::string{line}});
            added_.notify_all();
        });
    }
    ~LogLines() { logging::setSink({}); }
    LogLines(const LogLines&) = delete;
    LogLines& operator=(const LogLines&) = delete;

    // The lines so far, or those at one level, which are then forgotten.
    std::vector<std::string> take() {
        return take([](logging::Level) { return true; });
    }
    std::vector<std::string> take(logging::Level level) {
        return take([level](logging::Level other) { return other == level; });
    }

    // Waits until a line with the text in it was written; false when none comes for a long time.
    bool awaitLine(std::string_view text) {
        std::unique_lock lock{mutex_};
        return added_.wait_for(lock, std::chrono::seconds{20}, [&] {
            return std::any_of(lines_.begin(), lines_.end(),
                               [&](const Line& line) { return line.text.find(text) != std::string::npos; });
        });
    }

private:
    struct Line {
        logging::Level level;
        std::string text;
    };

    template <typename Predicate>
    std::vector<std::string> take(Predicate wanted) {
        const std::lock_guard lock{mutex_};
        std::vector<std::string> taken;
        for (const Line& line : lines_) {
            if (wanted(line.level)) taken.push_back(line.text);
        }
        lines_.clear();
        return taken;
    }

    std::mutex mutex_;
    std::condition_variable added_;
    std::vector<Line> lines_;
};

}  // namespace support
