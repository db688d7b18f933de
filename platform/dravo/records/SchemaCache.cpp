#include "platform/dravo/records/SchemaCache.h"

#include "platform/dravo/scan/InfoFile.h"

namespace dravo {

namespace {
constexpr std::size_t kLimit = 64;  // a description is some kilobytes once parsed
}

std::optional<value::Dictionary> SchemaCache::description(const std::string& bundlePath, std::uint64_t digest,
                                                          const OpenBundle& open) {
    {
        const std::lock_guard lock{mutex_};
        const auto found = entries_.find(bundlePath);
        if (found != entries_.end() && found->second.digest == digest) return found->second.description;
    }
    const auto directory = open();
    if (!directory) return {};
    const auto info = readInfoFile(directory->get());
    if (!info) return {};
    const value::Dictionary* const description = info->dictionary.dictionary(kPlugInKey);
    if (!description) return {};
    const std::lock_guard lock{mutex_};
    if (entries_.size() >= kLimit) entries_.clear();
    entries_.insert_or_assign(bundlePath, Entry{info->digest, *description});
    return *description;
}

void SchemaCache::clear() {
    const std::lock_guard lock{mutex_};
    entries_.clear();
}

}  // namespace dravo
