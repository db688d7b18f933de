#include "platform/mox/transport/Complaints.h"

#include <chrono>
#include <utility>

#include "platform/logging/Log.h"
#include "platform/text/Format.h"

namespace mox {

namespace {

constexpr std::chrono::seconds kPeriod{1};
constexpr std::size_t kMostKinds = 32;  // beyond, texts are counted together
constexpr std::string_view kOther = "refused or ended for other reasons";

}  // namespace

void Complaints::say(pid_t pid, std::string_view what, std::string_view why) {
    std::string text = text::format("{}: {}", what, why);
    {
        const std::lock_guard lock{mutex_};
        auto at = said_.find(text);
        if (at == said_.end() && said_.size() >= kMostKinds) at = said_.try_emplace(std::string{kOther}).first;
        if (at != said_.end()) {
            ++at->second.times;
            at->second.lastPid = pid;
            return;
        }
        said_.try_emplace(text);
        if (!timer_) startTimer();
    }
    logging::notice(pid != 0 ? text::format("mox: connection of process {} {}", pid, text)
                             : text::format("mox: service {}: {}", service_, text));
}

void Complaints::startTimer() {
    timer_ = queue::after(kPeriod, queue_, [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->sayHowOften();
    });
}

// What has been said again is counted on; what has not is forgotten, and a line again when it comes.
void Complaints::sayHowOften() {
    std::map<std::string, Repeated, std::less<>> repeated;
    {
        const std::lock_guard lock{mutex_};
        std::erase_if(said_, [](const auto& entry) { return entry.second.times == 0; });
        repeated = said_;
        for (auto& entry : said_) entry.second = {};
        timer_.reset();
        if (!said_.empty()) startTimer();
    }
    for (const auto& [text, how] : repeated) {
        logging::notice(text::format("mox: service {}: {} times more within a second, the last for process {}: {}",
                                     service_, how.times, how.lastPid, text));
    }
}

}  // namespace mox
