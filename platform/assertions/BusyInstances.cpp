#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "platform/assertions/Assertions.h"
#include "platform/assertions/OwnFiles.h"
#include "platform/effort/Effort.h"
#include "platform/file/UniqueFd.h"
#include "platform/logging/Log.h"

namespace assertions {

namespace {

constexpr int kMostEntries = 4096;
constexpr std::uint64_t kUnitsAnEntry = 7 * effort::kUnitsAMicrosecond;
constexpr std::size_t kMostIncomplete = 16;  // of one directory: each is a line in the log of who asks

struct DirectoryCloser {
    void operator()(DIR* directory) const { ::closedir(directory); }
};
using Directory = std::unique_ptr<DIR, DirectoryCloser>;

// A pid, or one with the number that tells it from another of the same.
bool isName(std::string_view name) {
    return !name.empty() && name.find_first_not_of("0123456789-") == std::string_view::npos;
}

enum class Holder {
    process,
    nobody,
    unknown,  // an open file, not a process, which is how the file is locked while it is being removed; or an error
};

Holder holderOf(int fd) {
    struct flock found {};
    found.l_type = F_WRLCK;
    found.l_whence = SEEK_SET;
    if (::fcntl(fd, F_GETLK, &found) != 0 || found.l_pid < 0) return Holder::unknown;
    return found.l_type == F_UNLCK ? Holder::nobody : Holder::process;
}

// Removes what a dead process left. Only with a lock of its own, so that it is not what a process takes right now.
void sweep(int directory, const char* name, int fd, const struct stat& status) {
    struct flock wanted {};
    wanted.l_type = F_WRLCK;
    wanted.l_whence = SEEK_SET;
    if (::fcntl(fd, F_OFD_SETLK, &wanted) != 0) return;
    struct stat now {};
    if (::fstatat(directory, name, &now, AT_SYMLINK_NOFOLLOW) != 0) return;
    if (now.st_dev == status.st_dev && now.st_ino == status.st_ino) ::unlinkat(directory, name, 0);
}

value::Dictionary complete(const std::string& identifier) {
    return {{kBundleIdentifierKey, identifier}};
}

value::Dictionary describe(int fd, const std::string& identifier) {
    std::array<char, kLongestIdentifier + 1> content;
    const ssize_t got = ::pread(fd, content.data(), content.size(), 0);
    const bool saysIt = got >= 0 && std::string_view{content.data(), static_cast<std::size_t>(got)} == identifier;
    return saysIt ? complete(identifier) : value::Dictionary{};
}

// The instance of which this is the assertion, if it is one.
std::optional<value::Dictionary> examine(int directory, const char* name, const std::string& identifier) {
    const auto lock = lockOwnFiles();
    struct stat status {};
    if (::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(status.st_mode)) return {};
    if (isOwn(status)) return complete(identifier);
    const file::UniqueFd fd{::openat(directory, name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
    if (!fd || ::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
    switch (holderOf(fd.get())) {
        case Holder::process: return describe(fd.get(), identifier);
        case Holder::nobody: sweep(directory, name, fd.get(), status); return {};
        case Holder::unknown: return {};
    }
    return {};
}

void addInstances(const std::string& identifier, std::vector<value::Dictionary>& instances) {
    const std::string path = directoryOf(identifier);
    file::UniqueFd opened{::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)};
    if (!opened && errno == ENOENT) return;
    const Directory directory{opened ? ::fdopendir(opened.get()) : nullptr};
    if (!directory) {
        logging::warning(value::posixError(errno, "cannot look for busy plug-ins in " + path).localizedDescription());
        return;
    }
    const int at = opened.release();
    std::size_t incomplete = 0;
    for (int i = 0; i < kMostEntries; ++i) {
        const dirent* const entry = ::readdir(directory.get());  // NOLINT(concurrency-mt-unsafe): a stream of our own
        if (entry == nullptr) return;
        const bool mayBeFile = entry->d_type == DT_REG || entry->d_type == DT_UNKNOWN;
        if (!mayBeFile || !isName(entry->d_name)) continue;
        if (!effort::take(kUnitsAnEntry)) return;
        auto instance = examine(at, entry->d_name, identifier);
        if (!instance) continue;
        const bool isComplete = !instance->empty();
        if (isComplete || ++incomplete <= kMostIncomplete) instances.push_back(*std::move(instance));
    }
    logging::warning("more entries than are looked at in " + path);
}

}  // namespace

std::vector<value::Dictionary> busyInstances(std::span<const std::string> bundleIdentifiers) {
    std::vector<value::Dictionary> instances;
    for (const std::string& identifier : bundleIdentifiers) addInstances(identifier, instances);
    return instances;
}

}  // namespace assertions
