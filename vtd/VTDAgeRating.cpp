#include "vtd/VTDAgeRating.h"

#include <cerrno>
#include <mutex>
#include <optional>
#include <string_view>
#include <unordered_map>

#include "platform/file/File.h"
#include "platform/logging/Log.h"
#include "platform/plist/Plist.h"
#include "platform/value/Value.h"

namespace {

constexpr char kFile[] = "JorunMetadata.plist";
constexpr plist::Limits kLimits{.bytes = std::size_t{1} << 20};

// The files that have been complained about, as they were then: records are made again and again from one file.
class Complaints {
public:
    void complain(const std::string& path, const std::string& why) {
        const file::Stamp now = file::stampOf(path).value_or(file::Stamp{});
        const std::lock_guard lock{mutex_};
        const auto known = about_.find(path);
        if (known != about_.end() && known->second == now) return;
        if (about_.size() >= kMost) about_.clear();
        about_[path] = now;
        logging::error("age rating unknown, " + path + ": " + why);
    }

private:
    static constexpr std::size_t kMost = 1000;

    std::mutex mutex_;
    std::unordered_map<std::string, file::Stamp> about_;
};

Complaints& complaints() {
    static Complaints& all = *new Complaints;  // never destroyed: queues may still read while the process ends
    return all;
}

}  // namespace

std::int64_t ageRatingInContainer(int containerDirectory, const std::string& containerPath) {
    const std::string path = containerPath + '/' + kFile;
    const auto refuse = [&path](const std::string& why) {
        complaints().complain(path, why);
        return kUnknownAgeRating;
    };
    const auto contents = file::readRegularBeneath(containerDirectory, kFile, kLimits.bytes);
    if (!contents) {
        const bool missing = contents.error().code == ENOENT;
        return missing ? kUnknownAgeRating : refuse(contents.error().localizedDescription());
    }
    const auto list = plist::read(contents->bytes, kLimits);
    if (!list) return refuse(list.error().localizedDescription());
    if (list->dictionary() == nullptr) return refuse("not a dictionary");
    const value::Dictionary* rating = list->dictionary()->dictionary("rating");
    const value::Value* rank = rating != nullptr ? rating->find("rank") : nullptr;
    if (rank == nullptr || !rank->isNumber()) return kUnknownAgeRating;
    return rank->integerValue().value_or(kUnknownAgeRating);
}
