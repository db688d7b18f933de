#include "vtd/VTDAgeRating.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "platform/effort/Effort.h"
#include "platform/file/File.h"
#include "platform/logging/Log.h"
#include "platform/plist/Plist.h"
#include "platform/value/Value.h"

namespace {

constexpr char kFile[] = "JorunMetadata.plist";
constexpr plist::Limits kLimits{.bytes = std::size_t{1} << 20};

// The ranks that were read, with their files as they were then: many records are made from one file, and a record that
// was purged is made again.
class KnownRanks {
public:
    std::optional<std::int64_t> find(const std::string& path, const file::Stamp& now) {
        const std::lock_guard lock{mutex_};
        const auto known = ranks_.find(path);
        const bool isGood = known != ranks_.end() && known->second.settled && known->second.file == now;
        return isGood ? std::optional{known->second.rank} : std::nullopt;
    }

    // Whether the file is not what was noted of it before.
    bool note(const std::string& path, const file::Stamp& file, bool settled, std::int64_t rank) {
        const std::lock_guard lock{mutex_};
        if (ranks_.size() >= kMost && !ranks_.contains(path)) ranks_.clear();
        const auto [known, isFirst] = ranks_.try_emplace(path);
        const bool isNews = isFirst || known->second.file != file;
        known->second = {file, settled, rank};
        return isNews;
    }

private:
    static constexpr std::size_t kMost = 10'000;

    struct Known {
        file::Stamp file;
        bool settled = false;
        std::int64_t rank = kUnknownAgeRating;
    };

    std::mutex mutex_;
    std::unordered_map<std::string, Known> ranks_;
};

KnownRanks& knownRanks() {
    static KnownRanks& all = *new KnownRanks;  // never destroyed: queues may still read while the process ends
    return all;
}

value::Result<std::int64_t> rankIn(const std::string& bytes) {
    static_cast<void>(effort::take(effort::ofParsing(bytes.size())));
    const auto list = plist::read(bytes, kLimits);
    if (!list) return list.error();
    if (list->dictionary() == nullptr) return value::Error{"rating", EINVAL, "not a dictionary"};
    const value::Dictionary* rating = list->dictionary()->dictionary("rating");
    const value::Value* rank = rating != nullptr ? rating->find("rank") : nullptr;
    return rank != nullptr && rank->isNumber() ? rank->integerValue().value_or(kUnknownAgeRating) : kUnknownAgeRating;
}

}  // namespace

std::int64_t ageRatingInContainer(int containerDirectory, const std::string& containerPath) {
    static_cast<void>(effort::take(effort::kFileOpened));
    const std::string path = containerPath + '/' + kFile;
    struct stat status {};
    if (::fstatat(containerDirectory, kFile, &status, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT)
        return kUnknownAgeRating;
    if (const auto known = knownRanks().find(path, file::stampOf(status))) return *known;
    const auto contents = file::readRegularBeneath(containerDirectory, kFile, kLimits.bytes);
    const auto rank = contents ? rankIn(contents->bytes) : value::Result<std::int64_t>{contents.error()};
    const bool isNews = knownRanks().note(path, contents ? contents->stamp : file::stampOf(status),
                                          contents && contents->settled, rank ? *rank : kUnknownAgeRating);
    if (!rank && isNews) logging::error("age rating unknown, " + path + ": " + rank.error().localizedDescription());
    return rank ? *rank : kUnknownAgeRating;
}
