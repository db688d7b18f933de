#include <fcntl.h>
#include <linux/openat2.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <charconv>
#include <string>

#include "platform/file/File.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/text/Format.h"

namespace sandbox {

namespace {

constexpr std::size_t kStatusLimit = std::size_t{1} << 20;  // of which a page is usual

struct FileId {
    dev_t device;
    ino_t inode;
    friend bool operator==(const FileId&, const FileId&) = default;
};

std::optional<FileId> fileId(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return {};
    return FileId{status.st_dev, status.st_ino};
}

// The number after "NAME:\t" in the text of a process's status; nothing where the kernel has no such line.
std::optional<long> statusNumber(const std::string& status, std::string_view name) {
    const std::string start = text::format("\n{}:\t", name);
    const std::size_t at = status.find(start);
    if (at == std::string::npos) return {};
    long number = 0;
    const char* digits = status.data() + at + start.size();
    if (std::from_chars(digits, status.data() + status.size(), number).ec != std::errc{}) return {};
    return number;
}

bool hasMoreFiltersThanWe(const std::string& process) {
    const auto theirs = file::readRegular(process + "/status", kStatusLimit);
    const auto ours = file::readRegular("/proc/self/status", kStatusLimit);
    if (!theirs || !ours) return true;
    // The mode tells strict mode, which has no filter; older kernels do not count filters.
    for (const char* name : {"Seccomp", "Seccomp_filters"}) {
        const auto their = statusNumber(theirs->bytes, name);
        const auto our = statusNumber(ours->bytes, name);
        if (their.has_value() != our.has_value() || (their && *their > *our)) return true;
    }
    return false;
}

// Whether the file is there when the root is that directory: links in it lead nowhere else.
bool existsInRoot(int root, const char* path) {
    open_how how{};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    return static_cast<bool>(file::UniqueFd{static_cast<int>(syscall(SYS_openat2, root, path, &how, sizeof how))});
}

bool hasContainerRoot(const std::string& process) {
    const file::UniqueFd root{open((process + "/root").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
    struct stat status {};
    const auto ours = fileId("/");
    if (!root || !ours || fstat(root.get(), &status) != 0) return true;
    if (*ours == FileId{status.st_dev, status.st_ino}) return false;
    for (const char* marker : {"run/.containerenv", ".dockerenv", "run/host/container-manager", ".flatpak-info"}) {
        if (existsInRoot(root.get(), marker)) return true;
    }
    return false;
}

// The user namespace is asked first: a process in ours cannot have put a file system of its own making in its root, on
// which looking for markers could hang.
bool looksSandboxed(pid_t pid) {
    const std::string process = text::format("/proc/{}", pid);
    const auto theirs = fileId(process + "/ns/user");
    const auto ours = fileId("/proc/self/ns/user");
    if (!theirs || !ours || *theirs != *ours) return true;
    return hasMoreFiltersThanWe(process) || hasContainerRoot(process);
}

// Whether the descriptor's process is alive: until then its number is nobody else's.
bool isAlive(int pidfd) {
    pollfd ended{pidfd, POLLIN, 0};
    return poll(&ended, 1, 0) == 0;
}

bool isSandboxed(pid_t pid, int pidfd) {
    return pid <= 0 || looksSandboxed(pid) || !isAlive(pidfd);
}

}  // namespace

bool isSandboxed(const mox::PeerIdentity& peer) {
    return !peer.pidfd || isSandboxed(peer.pid, peer.pidfd.get());
}

bool isSandboxed(pid_t pid) {
    const file::UniqueFd pidfd{static_cast<int>(syscall(SYS_pidfd_open, pid, 0))};
    return !pidfd || isSandboxed(pid, pidfd.get());
}

}  // namespace sandbox
