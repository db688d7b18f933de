#include "platform/sdk/SdkRegistry.h"

#include <climits>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "platform/logging/Log.h"
#include "platform/paths/Paths.h"
#include "platform/plist/KeptFile.h"

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
    enum class Faults { said, silent };

    std::optional<value::Dictionary> read(const std::string& path, Faults faults) {
        const std::lock_guard lock{mutex_};
        const auto kept = files_.try_emplace(path, path, kLimits).first;
        const plist::KeptFile::Reading& reading = kept->second.read();
        if (!reading.root && !reading.fault) {
            files_.erase(kept);
            return {};
        }
        if (reading.root && reading.root->dictionary() != nullptr) return *reading.root->dictionary();
        if (reading.news && faults == Faults::said) {
            logging::error("SDK not read, " +
                           (reading.fault ? reading.fault->localizedDescription() : path + ": not a dictionary"));
        }
        return {};
    }

private:
    std::mutex mutex_;
    std::unordered_map<std::string, plist::KeptFile> files_;
};

Cache& cache() {
    static Cache& kept = *new Cache;  // never destroyed: queues may still read while the process ends
    return kept;
}

}  // namespace

std::optional<value::Dictionary> entry(const std::string& extensionPoint) {
    if (!isPlainName(extensionPoint)) return {};
    return cache().read(paths::directories().systemVolume + "/SDKs/" + extensionPoint + ".plist", Cache::Faults::said);
}

std::optional<value::Dictionary> entryIn(const std::string& directory, const std::string& extensionPoint) {
    if (!isPlainName(extensionPoint)) return {};
    return cache().read(directory + "/" + extensionPoint, Cache::Faults::silent);
}

}  // namespace sdk
