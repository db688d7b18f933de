#include "platform/restrictions/Restrictions.h"

#include <string>

#include "platform/logging/Log.h"
#include "platform/paths/Paths.h"
#include "platform/plist/KeptDictionary.h"
#include "platform/text/Format.h"

namespace restrictions {

namespace {

constexpr std::int64_t kNoRatedApplication = -1;
constexpr char kComplaint[] = "no rated application is allowed";

plist::KeptDictionary& file() {
    // Never destroyed: queues may still ask while the process ends.
    static auto& kept = *new plist::KeptDictionary{
        [] { return paths::directories().config + '/' + kFile; }, kComplaint, {.bytes = std::size_t{1} << 20}};
    return kept;
}

}  // namespace

std::optional<std::int64_t> maximumAppsRating() {
    const auto reading = file().read();
    if (reading.fault) return kNoRatedApplication;
    const value::Value* const maximum = reading.content ? reading.content->find(kMaximumAppsRating) : nullptr;
    if (maximum == nullptr) return {};
    if (maximum->isNumber()) return maximum->integerValue();
    if (reading.news) {
        logging::error(text::format("{}, {}: {} is no number", kComplaint, reading.path, kMaximumAppsRating));
    }
    return kNoRatedApplication;
}

}  // namespace restrictions
