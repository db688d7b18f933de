#include "platform/restrictions/Restrictions.h"

#include <mutex>
#include <string>

#include "platform/logging/Log.h"
#include "platform/paths/Paths.h"
#include "platform/plist/KeptFile.h"

namespace restrictions {

namespace {

constexpr plist::Limits kLimits{.bytes = std::size_t{1} << 20};
constexpr std::int64_t kNoRatedApplication = -1;

class Service {
public:
    std::optional<std::int64_t> maximumAppsRating() {
        const std::lock_guard lock{mutex_};
        const std::string& config = paths::directories().config;
        if (!file_ || config != config_) {
            config_ = config;
            file_.emplace(config + '/' + kFile, kLimits);
        }
        const plist::KeptFile::Reading& reading = file_->read();
        if (reading.fault) return refuse(reading, reading.fault->localizedDescription());
        if (!reading.root) return {};
        const value::Dictionary* content = reading.root->dictionary();
        if (content == nullptr) return refuse(reading, file_->path() + ": not a dictionary");
        const value::Value* maximum = content->find(kMaximumAppsRating);
        if (maximum == nullptr) return {};
        if (!maximum->isNumber()) return refuse(reading, file_->path() + ": " + kMaximumAppsRating + " is no number");
        return maximum->integerValue();
    }

private:
    static std::int64_t refuse(const plist::KeptFile::Reading& reading, const std::string& why) {
        if (reading.news) logging::error("no rated application is allowed, " + why);
        return kNoRatedApplication;
    }

    std::mutex mutex_;
    std::string config_;
    std::optional<plist::KeptFile> file_;
};

}  // namespace

std::optional<std::int64_t> maximumAppsRating() {
    static Service& service = *new Service;  // never destroyed: queues may still ask while the process ends
    return service.maximumAppsRating();
}

}  // namespace restrictions
