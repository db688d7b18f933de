#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <map>
#include <optional>
#include <utility>

#include "platform/assertions/Assertions.h"
#include "platform/assertions/OwnFiles.h"
#include "platform/file/File.h"
#include "platform/paths/Paths.h"
#include "platform/text/Format.h"
#include "platform/text/Utf8.h"

namespace assertions {

namespace {

// Names may be taken: by a process of another pid namespace, which has the same pid there; by what a process that had
// the pid before left, while somebody removes it; or by what is no file.
constexpr int kMostNames = 64;

struct LockedFile {
    file::UniqueFd descriptor;
    std::string path;
    struct stat status {};
};

// What this process holds under one directory.
struct Taken {
    LockedFile file;
    pid_t pid = 0;  // a child of a fork has a copy of this, but no lock
    std::size_t count = 0;
};

struct OwnFiles {
    std::mutex mutex;
    std::map<std::string, Taken> byDirectory;
};

// Never destroyed: assertions may be given back while the process ends.
OwnFiles& ownFiles() {
    static OwnFiles& files = *new OwnFiles;  // NOLINT(cppcoreguidelines-owning-memory)
    return files;
}

// Whether the path still leads to the file: it is unlinked by whoever finds it without a lock.
bool isInPlace(const LockedFile& file) {
    struct stat now {};
    return ::lstat(file.path.c_str(), &now) == 0 && file::isSameFile(now, file.status);
}

// Writes first and locks then: what is locked is complete. Nothing, with errno set, when the name is not to be had.
std::optional<LockedFile> lockFile(std::string path, const std::string& content) {
    LockedFile file;
    file.path = std::move(path);
    const bool isLinkToOwn = ::lstat(file.path.c_str(), &file.status) == 0 && isOwn(file.status);
    constexpr int kFlags = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    if (!isLinkToOwn) file.descriptor = file::UniqueFd{::open(file.path.c_str(), kFlags, 0600)};
    const int fd = file.descriptor.get();
    if (isLinkToOwn || (fd >= 0 && ::fstat(fd, &file.status) == 0 && !S_ISREG(file.status.st_mode))) errno = EEXIST;
    if (fd < 0 || !S_ISREG(file.status.st_mode)) return {};
    const auto size = static_cast<ssize_t>(content.size());
    errno = ENOSPC;  // what a write means that is cut short
    if (::pwrite(fd, content.data(), content.size(), 0) != size || ::ftruncate(fd, size) != 0) return {};
    struct flock wanted {};
    wanted.l_type = F_WRLCK;
    wanted.l_whence = SEEK_SET;
    if (::fcntl(fd, F_SETLK, &wanted) != 0) return {};
    if (!isInPlace(file)) {
        errno = ESTALE;
        return {};
    }
    return file;
}

// Whether only the name is not to be had, and another one may be.
bool isTaken(int error) {
    constexpr int kErrors[] = {EAGAIN, EACCES, EEXIST, EISDIR, ELOOP, ESTALE};
    return std::find(std::begin(kErrors), std::end(kErrors), error) != std::end(kErrors);
}

}  // namespace

std::string directoryOf(const std::string& bundleIdentifier) {
    return paths::directories().runtime + "/assertions/" + file::encodedName(bundleIdentifier);
}

std::unique_lock<std::mutex> lockOwnFiles() {
    return std::unique_lock{ownFiles().mutex};
}

bool isOwn(const struct stat& status) {
    for (const auto& [directory, taken] : ownFiles().byDirectory) {
        if (taken.pid == ::getpid() && file::isSameFile(taken.file.status, status)) return true;
    }
    return false;
}

value::Result<Assertion> Assertion::take(const std::string& bundleIdentifier) {
    if (bundleIdentifier.empty() || bundleIdentifier.size() > kLongestIdentifier || !text::isUtf8(bundleIdentifier)) {
        return value::posixError(
            EINVAL, text::format("a process assertion needs a bundle identifier of 1 to {} bytes", kLongestIdentifier));
    }
    const std::string directory = directoryOf(bundleIdentifier);
    const auto lock = lockOwnFiles();
    auto& taken = ownFiles().byDirectory[directory];
    if (taken.count > 0 && taken.pid == ::getpid() && isInPlace(taken.file)) {
        ++taken.count;
        return Assertion{directory};
    }
    if (auto error = file::makeDirectories(directory, 0700)) return *std::move(error);
    for (int i = 0; i < kMostNames; ++i) {
        const std::string suffix = i == 0 ? std::string{} : text::format("-{}", i);
        auto file = lockFile(text::format("{}/{}{}", directory, ::getpid(), suffix), bundleIdentifier);
        if (!file && isTaken(errno)) continue;
        if (!file) break;
        const std::size_t before = taken.pid == ::getpid() ? taken.count : 0;  // their file was removed
        taken = {*std::move(file), ::getpid(), before + 1};
        return Assertion{directory};
    }
    return value::posixError(errno, "cannot take a process assertion in " + directory);
}

Assertion::Assertion(std::string directory) : directory_{std::move(directory)}, pid_{::getpid()} {}

Assertion::Assertion(Assertion&& other) noexcept : directory_{std::exchange(other.directory_, {})}, pid_{other.pid_} {}

Assertion& Assertion::operator=(Assertion&& other) noexcept {
    std::swap(directory_, other.directory_);
    std::swap(pid_, other.pid_);
    return *this;
}

Assertion::~Assertion() {
    if (directory_.empty() || pid_ != ::getpid()) return;
    const auto lock = lockOwnFiles();
    const auto found = ownFiles().byDirectory.find(directory_);
    if (found == ownFiles().byDirectory.end() || --found->second.count > 0) return;
    // The lock is ours until the file is closed: nobody else can have put another in its place.
    const LockedFile& file = found->second.file;
    if (isInPlace(file)) ::unlink(file.path.c_str());
    ownFiles().byDirectory.erase(found);
}

}  // namespace assertions
