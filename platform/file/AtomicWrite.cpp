#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/file/File.h"
#include "platform/text/Format.h"

// How it works. The directory is opened first, and everything else happens beneath that descriptor, so that a directory
// that is exchanged meanwhile does not split the write over two. The content goes into a temporary of a random name, as
// a file that nobody else may open; it is synced before it is renamed, since a rename that reaches the disk before the
// bytes do would leave an empty file behind a power cut, and the directory after it, since the rename itself may wait.
// Whatever fails before the rename removes the temporary; after it there is nothing to undo. A process that is killed
// in between leaves the temporary, which removeLeftovers() knows by its name.
namespace file {

namespace {

namespace fs = std::filesystem;

// What all temporary names of a file begin with: the file's own name, cut where that would be too long.
std::string temporaryPrefix(const std::string& name) {
    return ".tmp-" + encodedName(name) + "-";
}
constexpr std::size_t kRandomDigits = 16;

// A file of a name nobody else has, removed again unless it was renamed to where it belongs.
class Temporary {
public:
    Temporary(int directory, std::string replaced) : directory_{directory}, replaced_{std::move(replaced)} {}
    Temporary(const Temporary&) = delete;
    Temporary& operator=(const Temporary&) = delete;
    ~Temporary() {
        if (exists_) ::unlinkat(directory_, name_.c_str(), 0);
    }

    // Each step answers an error number, 0 when it worked.
    int create() {
        for (int attempt = 0; attempt < 16; ++attempt) {
            std::uint64_t random = 0;
            if (::getrandom(&random, sizeof random, 0) != ssize_t{sizeof random}) return errno;
            name_ = temporaryPrefix(replaced_) + text::format("{:016x}", random);
            fd_ = UniqueFd{::openat(directory_, name_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)};
            exists_ = static_cast<bool>(fd_);
            if (exists_) return 0;
            if (errno != EEXIST) return errno;
        }
        return EEXIST;
    }

    int write(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t written = ::write(fd_.get(), bytes.data(), bytes.size());
            if (written < 0 && errno == EINTR) continue;
            if (written < 0) return errno;
            bytes.remove_prefix(static_cast<std::size_t>(written));
        }
        return 0;
    }

    // A second fsync after a failed one may claim success for pages that were dropped: there is none.
    int sync() { return ::fsync(fd_.get()) == 0 ? 0 : errno; }

    // Linux closes the descriptor even when it says EINTR, and the content was synced before.
    int close() { return ::close(fd_.release()) == 0 || errno == EINTR ? 0 : errno; }

    // What is in the way is looked at as late as can be: a device would be gone for good.
    int replace() {
        struct stat status {};
        const bool isThere = ::fstatat(directory_, replaced_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
        if (!isThere && errno != ENOENT) return errno;
        if (isThere && !S_ISREG(status.st_mode)) return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        if (::renameat(directory_, name_.c_str(), directory_, replaced_.c_str()) != 0) return errno;
        exists_ = false;
        return 0;
    }

private:
    const int directory_;
    const std::string replaced_;
    std::string name_;
    UniqueFd fd_;
    bool exists_ = false;
};

// Brings small pieces to the file together, large ones as they are. After the first error there is nothing more to do.
class Gathered {
public:
    explicit Gathered(Temporary& file) : file_{file} {}

    void take(std::string_view piece) {
        if (pending_.size() + piece.size() > kChunk) flush();
        if (piece.size() > kChunk) {
            if (error_ == 0) error_ = file_.write(piece);
        } else {
            pending_.append(piece);
        }
    }

    int flush() {
        if (error_ == 0) error_ = file_.write(pending_);
        pending_.clear();
        return error_;
    }

private:
    static constexpr std::size_t kChunk = std::size_t{64} << 10;

    Temporary& file_;
    std::string pending_;
    int error_ = 0;
};

}  // namespace

value::Result<std::string> finalPath(const std::string& path) {
    constexpr int kMostLinks = 40;  // as many as the kernel follows
    if (path.find('\0') != std::string::npos) return value::posixError(EINVAL, path);
    fs::path target = path;
    std::error_code notALink;
    for (int links = 0; !notALink; ++links) {
        if (links > kMostLinks) return value::posixError(ELOOP, path);
        const fs::path next = fs::read_symlink(target, notALink);
        if (!notALink) target = target.parent_path() / next;  // an absolute one replaces what is before it
    }
    const std::string name = target.filename().string();
    if (name.empty() || name == "." || name == "..") return value::posixError(EISDIR, path);
    return target.string();
}

std::optional<value::Error> writeAtomically(const std::string& path, std::string_view bytes) {
    return writeAtomically(path, [bytes](const Take& take) { take(bytes); });
}

std::optional<value::Error> writeAtomically(const std::string& path,
                                            const std::function<void(const Take& take)>& content) {
    const auto failure = [&](int errorNumber, const char* step) {
        return value::posixError(errorNumber, text::format("writing {} ({})", path, step));
    };
    const auto found = finalPath(path);
    if (!found) return failure(static_cast<int>(found.error().code), "path");
    const fs::path target = *found;
    const std::string parent = target.has_parent_path() ? target.parent_path().string() : ".";
    const UniqueFd directory{::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (!directory) return failure(errno, "open directory");
    Temporary temporary{directory.get(), target.filename().string()};
    if (const int e = temporary.create(); e != 0) return failure(e, "create temporary");
    Gathered gathered{temporary};
    content([&gathered](std::string_view piece) { gathered.take(piece); });
    if (const int e = gathered.flush(); e != 0) return failure(e, "write");
    if (const int e = temporary.sync(); e != 0) return failure(e, "fsync");
    if (const int e = temporary.close(); e != 0) return failure(e, "close");
    if (const int e = temporary.replace(); e != 0) return failure(e, "rename");
    // Some file systems cannot sync a directory and say EINVAL; their renames are as durable as they get.
    if (::fsync(directory.get()) != 0 && errno != EINVAL) return failure(errno, "fsync directory");
    return {};
}

void removeLeftovers(const std::string& path) {
    const auto target = finalPath(path);
    if (!target) return;
    const std::string prefix = temporaryPrefix(fs::path{*target}.filename().string());
    std::vector<fs::path> leftovers;
    std::error_code error;
    const fs::path parent = fs::path{*target}.parent_path();
    for (fs::directory_iterator at{parent.empty() ? "." : parent, error}, end; !error && at != end;
         at.increment(error)) {
        const std::string name = at->path().filename().string();
        if (name.size() == prefix.size() + kRandomDigits && name.starts_with(prefix)) leftovers.push_back(at->path());
    }
    for (const fs::path& leftover : leftovers) fs::remove(leftover, error);
}

}  // namespace file
