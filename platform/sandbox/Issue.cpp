#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "platform/effort/Effort.h"
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
    const std::string path;
    const file::Stamp stamp;
    const std::string_view within;
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

// Where what was opened lies, as a name beneath the directory at the path; nothing when that is not beneath it.
std::optional<std::string> nameBeneath(const std::string& directory, const file::UniqueFd& opened) {
    const auto canonical = file::pathOf(opened);
    if (!canonical) return {};
    if (*canonical == directory) return ".";
    if (!file::isBeneath(*canonical, directory)) return refuse(EXDEV);
    return file::nameBeneath(*canonical, directory);
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

std::optional<std::string> issueFileExtension(std::string_view extensionClass, const std::string& path,
                                              const file::Identity& identity) {
    if (extensionClass != kReadOnlyFileClass || !identity.isKnown()) return refuse(EINVAL);
    return seal({path, identity});
}

// What a link leads to is opened a second time beneath the directory, without following one: the first look decides
// only whether anything has changed, and by which name it is to be opened.
std::optional<std::string> issueFileExtensionBeneath(std::string_view extensionClass, const file::UniqueFd& directory,
                                                     const std::string& path, const std::string& name) {
    static_cast<void>(effort::take(kUnitsAToken));
    if (extensionClass != kReadOnlyFileClass || name.find('\0') != std::string::npos) return refuse(EINVAL);
    const bool isDirectory = name == ".";
    const file::UniqueFd found = isDirectory ? file::UniqueFd{} : file::openWithin(directory.get(), path, name);
    if (!isDirectory && !found) return {};
    struct stat status {};
    if (::fstat((isDirectory ? directory : found).get(), &status) != 0) return {};
    const Kept kept{isDirectory ? path : path + '/' + name, file::stampOf(status), path};
    if (auto token = cache().find(kept.path, kept.stamp, kept.within)) return token;

    const auto plain = isDirectory ? std::optional{name} : nameBeneath(path, found);
    if (!plain) return {};
    if (*plain == ".") return issue(directory, path, kept);
    const auto opened = file::openBeneath(directory.get(), *plain, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (!opened) return refuse(errorNumber(opened.error()));
    return issue(*opened, path + '/' + *plain, kept);
}

}  // namespace sandbox
