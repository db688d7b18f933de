#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "platform/plist/KeptFile.h"

namespace plist {

// A property-list file that must hold a dictionary, asked for often by a service of the process: read anew only when it
// has changed, and complained of once for each change.
//
// Threading: any thread.
class KeptDictionary {
public:
    // Where the file is is asked at each reading, for what decides it may change (a root, a host's name). The complaint
    // is what it means that the file cannot be read: it stands before the reason in the log. Empty: nothing is logged.
    KeptDictionary(std::function<std::string()> path, std::string complaint, const Limits& limits);

    struct Reading {
        std::optional<value::Dictionary> content;  // nothing when there is no file, or it cannot be read
        std::optional<value::Error> fault;         // why it cannot; names the file
        std::uint64_t digest = 0;                  // of the content or the fault; 0 when there is no file
        bool stale = false;                        // ask again: what there is now could not be looked at
        bool news = false;                         // differs from what was read before, or is of another file
        std::string path;
    };
    Reading read();

private:
    const std::function<std::string()> path_;
    const std::string complaint_;
    const Limits limits_;

    std::mutex mutex_;  // guards what follows
    std::optional<KeptFile> file_;
};

}  // namespace plist
