#include <sys/stat.h>

#include <cerrno>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "platform/file/File.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/sandbox/Token.h"

namespace sandbox {

namespace {

// The tokens issued last, by the path they were asked for, since every discovery asks for the same ones again. Two
// halves: when the young one is full it becomes the old one, and what is used moves to the young one; so at least the
// last kHalf paths are known and nothing is ever sorted.
class TokenCache {
public:
    std::optional<std::string> find(const std::string& path, const file::Stamp& stamp, const std::string& within) {
        const std::lock_guard lock{mutex_};
        if (const auto found = young_.find(path); found != young_.end()) return tokenIf(found->second, stamp, within);
        const auto found = old_.find(path);
        if (found == old_.end()) return {};
        auto token = tokenIf(found->second, stamp, within);
        Entry entry = std::move(found->second);
        old_.erase(found);
        insert(path, std::move(entry));
        return token;
    }

    void keep(const std::string& path, const file::Stamp& stamp, const std::string& within, const std::string& token) {
        const std::lock_guard lock{mutex_};
        insert(path, {stamp, within, token});
    }

private:
    struct Entry {
        file::Stamp stamp;
        std::string within;  // what the path was found to lie in; empty when nobody asked
        std::string token;
    };

    static constexpr std::size_t kHalf = 16384;

    static std::optional<std::string> tokenIf(const Entry& entry, const file::Stamp& stamp, const std::string& within) {
        return entry.stamp == stamp && entry.within == within ? std::optional{entry.token} : std::nullopt;
    }

    void insert(const std::string& path, Entry entry) {
        if (young_.size() >= kHalf) {
            old_ = std::move(young_);
            young_.clear();
        }
        young_.insert_or_assign(path, std::move(entry));
    }

    std::mutex mutex_;
    std::unordered_map<std::string, Entry> young_, old_;
};

TokenCache& cache() {
    static TokenCache& kept = *new TokenCache;  // never destroyed: queues may still ask while the process ends
    return kept;
}

// Both canonical.
bool liesIn(std::string_view path, std::string_view directory) {
    return path.starts_with(directory) && (path.size() == directory.size() || path[directory.size()] == '/');
}

}  // namespace

// A kept token is given out again while the file at the path is the same and unchanged. That the path may meanwhile
// lead there by another way is not seen by one stat: such a token names a place where the file no longer is, and the
// service refuses it, because it checks the identity when it opens.
std::optional<std::string> issueFileExtension(std::string_view extensionClass, const std::string& path,
                                              const std::string& within) {
    if (extensionClass != kReadOnlyFileClass || path.find('\0') != std::string::npos) {
        errno = EINVAL;
        return {};
    }
    const auto stamp = file::stampOf(path);
    if (!stamp) return {};
    if (auto token = cache().find(path, *stamp, within)) return token;

    const auto canonical = file::canonicalPath(path);
    struct stat status {};
    if (!canonical || lstat(canonical->c_str(), &status) != 0) return {};
    if (!within.empty()) {
        const auto directory = file::canonicalPath(within);
        if (!directory) return {};
        if (!liesIn(*canonical, *directory)) {
            errno = EXDEV;
            return {};
        }
    }
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
        errno = EACCES;
        return {};
    }
    std::string token = seal({*canonical, status.st_dev, status.st_ino});
    cache().keep(path, file::stampOf(status), within, token);
    return token;
}

}  // namespace sandbox
