#include "vtd/rules/Complaints.h"

#include <algorithm>
#include <functional>

#include "platform/effort/Effort.h"
#include "platform/logging/Log.h"
#include "platform/text/Format.h"

namespace rules {

namespace {
constexpr std::size_t kMostPatterns = 16;
}

void Complaints::addUnknownOperator(std::string_view pattern, std::uint64_t times) {
    if (times == 0) return;
    static_cast<void>(effort::take(effort::ofBytes(pattern.size())));
    const std::size_t hash = std::hash<std::string_view>{}(pattern);
    const auto known =
        std::find_if(unknown_.begin(), unknown_.end(), [hash](const Unknown& u) { return u.hash == hash; });
    if (known != unknown_.end()) {
        known->times += times;
    } else if (unknown_.size() < kMostPatterns) {
        unknown_.push_back({logging::excerpt(pattern), hash, times});
    } else {
        further_ += times;
    }
}

void Complaints::write() {
    for (const Unknown& unknown : unknown_) {
        const std::string often = unknown.times > 1 ? text::format(" ({} times)", unknown.times) : std::string{};
        logging::notice(text::format("unrecognized match operator:{}{}", unknown.pattern, often));
    }
    if (further_ > 0) logging::notice(text::format("further unrecognized match operators, {} times", further_));
    discard();
}

void Complaints::discard() {
    unknown_.clear();
    further_ = 0;
}

}  // namespace rules
