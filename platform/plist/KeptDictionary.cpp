#include "platform/plist/KeptDictionary.h"

#include <cerrno>
#include <utility>

#include "platform/logging/Log.h"

namespace plist {

KeptDictionary::KeptDictionary(std::function<std::string()> path, std::string complaint, const Limits& limits)
    : path_{std::move(path)}, complaint_{std::move(complaint)}, limits_{limits} {}

KeptDictionary::Reading KeptDictionary::read() {
    const std::lock_guard lock{mutex_};
    std::string path = path_();
    const bool moved = !file_ || file_->path() != path;
    if (moved) file_.emplace(path, limits_);
    const KeptFile::Reading& found = file_->read();
    Reading reading{.content = {},
                    .fault = found.fault,
                    .digest = found.digest,
                    .stale = found.stale,
                    .news = found.news || moved,
                    .path = std::move(path)};
    if (found.root && found.root->dictionary() != nullptr) {
        reading.content = *found.root->dictionary();
    } else if (found.root) {
        reading.fault = value::Error{"plist", EINVAL, "reading " + reading.path + ": not a dictionary"};
    }
    if (reading.fault && reading.news && !complaint_.empty()) {
        logging::error(complaint_ + ", " + reading.fault->localizedDescription());
    }
    return reading;
}

}  // namespace plist
