#include "platform/sdk/SdkRegistry.h"

#include <climits>
#include <cstdlib>
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
    Part read(const std::string& path, const char* complaint) {
        const std::lock_guard lock{mutex_};
        const auto kept = files_
                              .try_emplace(
                                  path, [path] { return path; }, complaint, kLimits)
                              .first;
        auto reading = kept->second.read();
        if (!reading.content && !reading.fault) files_.erase(kept);
        return {std::move(reading.content), std::move(reading.fault), reading.digest, reading.stale};
    }

private:
    std::mutex mutex_;
    std::unordered_map<std::string, plist::KeptDictionary> files_;
};

Cache& cache() {
    static Cache& kept = *new Cache;  // never destroyed: queues may still read while the process ends
    return kept;
}

std::string registryDirectory() {
    return paths::directories().systemVolume + "/SDKs";
}

// Nothing when the variable is not set, or empty.
std::optional<std::string> testDirectory() {
    const char* const directory = std::getenv("VTTEST_SDK");
    if (directory == nullptr || *directory == '\0') return {};
    return directory;
}

}  // namespace

Part part(const std::string& extensionPoint) {
    if (!isPlainName(extensionPoint)) return {};
    bool isStale = false;
    if (const auto directory = testDirectory()) {
        Part test = cache().read(*directory + "/" + extensionPoint, "");
        if (test.dictionary) return test;
        isStale = test.isStale;
    }
    Part registered = cache().read(registryDirectory() + "/" + extensionPoint + ".plist", "SDK not read");
    registered.isStale = registered.isStale || isStale;
    return registered;
}

std::vector<std::string> directories() {
    std::vector<std::string> directories{registryDirectory()};
    if (auto directory = testDirectory()) directories.push_back(*std::move(directory));
    return directories;
}

}  // namespace sdk
