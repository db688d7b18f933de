#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <system_error>

#include "platform/file/File.h"
#include "platform/text/Format.h"

namespace file {

namespace {

namespace fs = std::filesystem;

// A file of a name nobody else has, removed again unless it was renamed to where it belongs.
class Temporary {
public:
    explicit Temporary(int directory) : directory_{directory} {}
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
            name_ = text::format(".tmp-{:016x}", random);
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

    int renameTo(const std::string& name) {
        if (::renameat(directory_, name_.c_str(), directory_, name.c_str()) != 0) return errno;
        exists_ = false;
        return 0;
    }

private:
    const int directory_;
    std::string name_;
    UniqueFd fd_;
    bool exists_ = false;
};

// Where the path leads when its last component is a link, or a chain of them; the last may dangle.
fs::path followed(fs::path path, std::error_code& error) {
    constexpr int kMostLinks = 40;  // as many as the kernel follows
    for (int links = 0; links <= kMostLinks; ++links) {
        std::error_code notALink;
        const fs::path target = fs::read_symlink(path, notALink);
        if (notALink) return path;
        path = path.parent_path() / target;  // an absolute target replaces what is before it
    }
    error = std::make_error_code(std::errc::too_many_symbolic_link_levels);
    return path;
}

}  // namespace

std::optional<value::Error> writeAtomically(const std::string& path, std::string_view bytes) {
    const auto failure = [&](int errorNumber, const char* step) {
        return value::posixError(errorNumber, text::format("writing {} ({})", path, step));
    };
    if (path.find('\0') != std::string::npos) return failure(EINVAL, "path");
    std::error_code error;
    const fs::path target = followed(path, error);
    if (error) return failure(error.value(), "path");
    const std::string name = target.filename().string();
    if (name.empty() || name == "." || name == "..") return failure(EISDIR, "path");

    const std::string parent = target.has_parent_path() ? target.parent_path().string() : ".";
    const UniqueFd directory{::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (!directory) return failure(errno, "open directory");
    Temporary temporary{directory.get()};
    if (const int e = temporary.create(); e != 0) return failure(e, "create temporary");
    if (const int e = temporary.write(bytes); e != 0) return failure(e, "write");
    if (const int e = temporary.sync(); e != 0) return failure(e, "fsync");
    if (const int e = temporary.close(); e != 0) return failure(e, "close");
    if (const int e = temporary.renameTo(name); e != 0) return failure(e, "rename");
    // Some file systems cannot sync a directory and say EINVAL; their renames are as durable as they get.
    if (::fsync(directory.get()) != 0 && errno != EINVAL) return failure(errno, "fsync directory");
    return {};
}

}  // namespace file
