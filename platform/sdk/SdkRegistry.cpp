#include "platform/sdk/SdkRegistry.h"

#include <climits>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "platform/paths/Paths.h"
#include "platform/plist/KeptDictionary.h"

namespace sdk {

namespace {

constexpr plist::Limits kLimits{.bytes = std::size_t{4} << 20};

bool isPlainName(const std::string& name) {
    constexpr std::size_t kLongest = NAME_MAX - std::string_view{".plist"}.size();
    return !name.empty() && name.size() <= kLongest && name.front() != '.' && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

// The dictionaries read so far, by path. Only files that exist are kept, so that names made up by bundles cost no
// memory.
class Cache {
public:
    value::Result<std::optional<value::Dictionary>> read(const std::string& path, const char* complaint) {
        const std::lock_guard lock{mutex_};
        const auto kept = files_
                              .try_emplace(
                                  path, [path] { return path; }, complaint, kLimits)
                              .first;
        auto reading = kept->second.read();
        if (reading.fault) return *std::move(reading.fault);
        if (!reading.content) files_.erase(kept);
        return std::move(reading.content);
    }

private:
    std::mutex mutex_;
    std::unordered_map<std::string, plist::KeptDictionary> files_;
};

Cache& cache() {
    static Cache& kept = *new Cache;  // never destroyed: queues may still read while the process ends
    return kept;
}

}  // namespace

value::Result<std::optional<value::Dictionary>> entry(const std::string& extensionPoint) {
    if (!isPlainName(extensionPoint)) return std::optional<value::Dictionary>{};
    return cache().read(paths::directories().systemVolume + "/SDKs/" + extensionPoint + ".plist", "SDK not read");
}

std::optional<std::string> testDirectory() {
    const char* const directory = std::getenv("VTTEST_SDK");
    if (directory == nullptr || *directory == '\0') return {};
    return directory;
}

std::optional<value::Dictionary> entryIn(const std::string& directory, const std::string& extensionPoint) {
    if (!isPlainName(extensionPoint)) return {};
    auto read = cache().read(directory + "/" + extensionPoint, "");
    return read ? *std::move(read) : std::nullopt;
}

}  // namespace sdk
