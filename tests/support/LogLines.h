#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/logging/Log.h"

namespace support {

// Receives the log for as long as it lives.
class LogLines {
public:
    LogLines() {
        logging::setSink([this](logging::Level level, std::string_view line) {
            const std::lock_guard lock{mutex_};
            lines_.emplace_back(level, line);
            added_.notify_all();
        });
    }
    ~LogLines() { logging::setSink({}); }

    // The lines so far, or those at one level; all are then forgotten.
    std::vector<std::string> take(std::optional<logging::Level> wanted = {}) {
        const std::lock_guard lock{mutex_};
        std::vector<std::string> taken;
        for (const auto& [level, line] : std::exchange(lines_, {})) {
            if (!wanted || level == *wanted) taken.push_back(line);
        }
        return taken;
    }

    // Waits until a line with the text in it was written; false when none comes for a long time.
    bool awaitLine(std::string_view text) {
        const auto hasIt = [&](const auto& line) { return line.second.find(text) != std::string::npos; };
        std::unique_lock lock{mutex_};
        return added_.wait_for(lock, std::chrono::seconds{20}, [&] { return std::ranges::any_of(lines_, hasIt); });
    }

private:
    std::mutex mutex_;
    std::condition_variable added_;
    std::vector<std::pair<logging::Level, std::string>> lines_;
};

}  // namespace support
