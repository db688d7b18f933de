#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "platform/file/Beneath.h"
#include "platform/file/File.h"
#include "platform/file/Identity.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/sandbox/Token.h"

namespace sandbox {

namespace {

// The tokens issued last, by the path they were asked for, since every discovery asks for the same ones again. Two
// halves: when the young one is full it becomes the old one, and what is used moves to the young one; so at least the
// last kHalf paths are known and nothing is ever sorted.
class TokenCache {
public:
    std::optional<std::string> find(const std::string& path, const file::Stamp& stamp, std::string_view within) {
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

    void keep(const std::string& path, const file::Stamp& stamp, std::string_view within, const std::string& token) {
        const std::lock_guard lock{mutex_};
        insert(path, {stamp, std::string{within}, token});
    }

private:
    struct Entry {
        file::Stamp stamp;
        std::string within;  // the directory beneath which it was opened; empty when it was reached by its path
        std::string token;
    };

    static constexpr std::size_t kHalf = 16384;

    static std::optional<std::string> tokenIf(const Entry& entry, const file::Stamp& stamp, std::string_view within) {
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

int errorNumber(const value::Error& error) {
    return error.domain == "posix" ? static_cast<int>(error.code) : EIO;
}

// Sets errno to the error's number.
std::nullopt_t refuse(int number) {
    errno = number;
    return std::nullopt;
}

// What a kept token stands for: what lies at the path, or beneath the directory.
struct Kept {
    const std::string& path;
    file::Stamp stamp;
    std::string_view within;
};

// For what is open here and lies at the canonical path.
std::optional<std::string> issue(const file::UniqueFd& opened, const std::string& canonical, const Kept& kept) {
    struct stat status {};
    if (::fstat(opened.get(), &status) != 0) return {};
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) return refuse(EACCES);
    const auto identity = file::identityOf(opened.get());
    if (!identity) return {};
    std::string token = seal({canonical, *identity});
    // What was exchanged since it was looked at is not found again, because its stamp is another.
    if (file::stampOf(status) == kept.stamp) cache().keep(kept.path, kept.stamp, kept.within, token);
    return token;
}

// What a path leads to, as a name beneath the directory that it begins with; nothing when it leads out of it.
std::optional<std::string> nameBeneath(const std::string& directory, const std::string& path) {
    const auto canonical = file::canonicalPath(path);
    if (!canonical) return {};
    if (*canonical == directory) return ".";
    const std::string prefix = directory == "/" ? directory : directory + "/";
    if (!canonical->starts_with(prefix)) return refuse(EXDEV);
    return canonical->substr(prefix.size());
}

}  // namespace

// A kept token is given out again while the file at the path is the same and unchanged. That the path may meanwhile
// lead there by another way is not seen by one stat: such a token names a place where the file no longer is, and the
// service refuses it, because it checks the identity when it opens.
std::optional<std::string> issueFileExtension(std::string_view extensionClass, const std::string& path) {
    if (extensionClass != kReadOnlyFileClass || path.find('\0') != std::string::npos) return refuse(EINVAL);
    const auto stamp = file::stampOf(path);
    if (!stamp) return {};
    if (auto token = cache().find(path, *stamp, {})) return token;

    const auto canonical = file::canonicalPath(path);
    if (!canonical) return {};
    const auto opened = file::openWithoutLinks(*canonical, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (!opened) return refuse(errorNumber(opened.error()));
    return issue(*opened, *canonical, {path, *stamp, {}});
}

// The path is looked at twice, but only for what cannot harm: whether anything has changed, and which name it is that a
// link stands for. What is issued for is opened beneath the very directory, without following a link.
std::optional<std::string> issueFileExtensionBeneath(std::string_view extensionClass, const std::string& directory,
                                                     const std::string& name, const OpenDirectory& open) {
    if (extensionClass != kReadOnlyFileClass || name.find('\0') != std::string::npos) return refuse(EINVAL);
    const std::string path = name == "." ? directory : directory + '/' + name;
    const auto stamp = file::stampOf(path);
    if (!stamp) return {};
    if (auto token = cache().find(path, *stamp, directory)) return token;

    const auto plain = name == "." ? std::optional{name} : nameBeneath(directory, path);
    if (!plain) return {};
    const auto root = open();
    if (!root) return refuse(errorNumber(root.error()));
    const Kept kept{path, *stamp, directory};
    if (*plain == ".") return issue(*root, directory, kept);
    const auto opened = file::openBeneath(root->get(), *plain, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (!opened) return refuse(errorNumber(opened.error()));
    return issue(*opened, directory + '/' + *plain, kept);
}

}  // namespace sandbox
