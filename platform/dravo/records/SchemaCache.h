#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "platform/file/UniqueFd.h"
#include "platform/value/Value.h"

namespace dravo {

// The parsed plug-in descriptions that somebody asked for lately. Bounded; dropped whole. Any thread.
class SchemaCache {
public:
    // The KXExtension dictionary of the bundle's Info.plist, read when it is not here, from the directory that `open`
    // opens. `digest` is of the Info.plist that the caller knows: another one's dictionary is never answered from the
    // cache.
    using OpenBundle = std::function<value::Result<file::UniqueFd>()>;
    std::optional<value::Dictionary> description(const std::string& bundlePath, std::uint64_t digest,
                                                 const OpenBundle& open);

    void clear();

private:
    struct Entry {
        std::uint64_t digest;
        value::Dictionary description;
    };

    std::mutex mutex_;
    std::unordered_map<std::string, Entry> entries_;
};

}  // namespace dravo
