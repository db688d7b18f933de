#include "platform/sdk/SdkRegistry.h"

#include <mutex>
#include <unordered_map>
#include <utility>

#include "platform/file/File.h"
#include "platform/logging/Log.h"
#include "platform/paths/Paths.h"
#include "platform/plist/Plist.h"

namespace sdk {

namespace {

constexpr std::size_t kLimit = std::size_t{4} << 20;

bool isPlainName(const std::string& name) {
    return !name.empty() && name.front() != '.' && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

// The dictionaries read so far, by path. Only files that exist are kept, so that names made up by bundles cost no
// memory.
class Cache {
public:
    enum class Faults { said, silent };

    std::optional<value::Dictionary> read(const std::string& path, Faults faults) {
        const auto stamp = file::stampOf(path);
        const std::lock_guard lock{mutex_};
        const auto kept = entries_.find(path);
        if (!stamp) {
            if (kept != entries_.end()) entries_.erase(kept);
            return {};
        }
        if (kept != entries_.end() && kept->second.settled && kept->second.stamp == *stamp) return kept->second.content;

        Entry fresh = load(path, *stamp);
        const bool reported = kept != entries_.end() && kept->second.stamp == fresh.stamp;
        if (!fresh.fault.empty() && !reported && faults == Faults::said) logging::error("SDK not read, " + fresh.fault);
        return (entries_[path] = std::move(fresh)).content;
    }

private:
    struct Entry {
        file::Stamp stamp;
        bool settled = false;  // whether an unchanged stamp proves unchanged content
        std::optional<value::Dictionary> content;
        std::string fault;
    };

    static Entry load(const std::string& path, const file::Stamp& seen) {
        const bool settled = file::settled(seen);  // as of before the attempt to read
        const auto contents = file::readRegular(path, kLimit);
        if (!contents) return {seen, settled, {}, contents.error().localizedDescription()};
        Entry entry{contents->stamp, contents->settled, {}, {}};
        const auto list = plist::read(contents->bytes);
        if (!list) {
            entry.fault = path + ": " + list.error().localizedDescription();
        } else if (const value::Dictionary* dictionary = list->dictionary()) {
            entry.content = *dictionary;
        } else {
            entry.fault = path + ": not a dictionary";
        }
        return entry;
    }

    std::mutex mutex_;
    std::unordered_map<std::string, Entry> entries_;
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
