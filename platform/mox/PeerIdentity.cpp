#include "platform/mox/PeerIdentity.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <limits>
#include <string_view>

#include "platform/mox/PeerProgram.h"
#include "platform/text/Format.h"

// How an identity is read, and what each step stops:
//
// - Pid, uid and gid are those of the process that called connect(). A pidfd for it is had from the socket, or where
//   the kernel has none to give, from the pid. All else is read by pid, and only counts when the pidfd shows afterwards
//   that the process lived throughout.
// - A process may connect and then execute another program, and be taken for that. Therefore the service sends a nonce
//   after it has read the identity, the answer must come from that very process, and the identity is compared again,
//   behind all that is read in between: the program that was trusted never answers for another one's socket.
// - A process may mount its own program over a trusted path, for itself alone. Therefore the running file must be the
//   one that the daemon finds at the path.
// - A process that owns a namespace of pids can claim, in what it sends, any pid in it; a child could so answer for a
//   parent that has executed a trusted program. Therefore a peer with pids of its own has no path.
//
// The path, and what is read by it, are PeerProgram.cpp's: finding it may take as long as a peer likes.
namespace mox {

namespace {

#ifndef SO_PEERPIDFD
constexpr int SO_PEERPIDFD = 77;
#endif

std::string procPath(pid_t pid, std::string_view name) {
    return text::format("/proc/{}/{}", pid, name);
}

bool isAlive(int pidfd) {
    pollfd ended{pidfd, POLLIN, 0};
    return ::poll(&ended, 1, 0) == 0;
}

// The descriptor of the process that connected; where the kernel has no such option, of the process that has its pid
// now: if that is another one, it has neither the socket nor the nonce, and the handshake fails.
file::UniqueFd openProcess(int socket, pid_t pid) {
    int fd = -1;
    socklen_t size = sizeof fd;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &fd, &size) == 0) return file::UniqueFd{fd};
    if (errno != ENOPROTOOPT) return {};
    return file::UniqueFd{static_cast<int>(::syscall(SYS_pidfd_open, pid, 0))};
}

value::Error refused(std::string message) {
    return {"mox", EACCES, std::move(message)};
}

}  // namespace

std::optional<FileId> identify(const std::string& path, int flags) {
    struct statx status {};
    if (::statx(AT_FDCWD, path.c_str(), flags | AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT, STATX_TYPE | STATX_INO, &status))
        return {};
    return FileId{makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_ino};
}

std::optional<std::string> PeerIdentity::executablePath() const {
    return program ? program->executablePath : std::nullopt;
}

value::Result<PeerIdentity> readPeer(int socket) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
        return value::posixError(errno, "credentials of a peer");
    if (credentials.pid <= 0) return refused("a process without a pid here");
    if (credentials.uid != ::geteuid() && credentials.uid != 0)
        return refused(text::format("process {} of user {}", credentials.pid, credentials.uid));

    PeerIdentity identity;
    identity.pid = credentials.pid;
    identity.uid = credentials.uid;
    identity.gid = credentials.gid;
    identity.pidfd = openProcess(socket, identity.pid);
    if (!identity.pidfd) return value::posixError(errno, text::format("process {}", identity.pid));

    identity.startTime = startTimeOf(identity.pid);
    identity.executable = identify(procPath(identity.pid, "exe"));
    if (!isAlive(identity.pidfd.get())) return value::posixError(ESRCH, text::format("process {}", identity.pid));
    return identity;
}

bool isUnchanged(const PeerIdentity& identity) {
    return startTimeOf(identity.pid) == identity.startTime &&
           identify(procPath(identity.pid, "exe")) == identity.executable && isAlive(identity.pidfd.get());
}

// The 22nd field of the process's stat line; the second, in parentheses, may contain anything.
std::uint64_t startTimeOf(pid_t pid) {
    const file::UniqueFd fd{::open(procPath(pid, "stat").c_str(), O_RDONLY | O_CLOEXEC)};
    std::array<char, 1024> text;
    const ssize_t length = fd ? ::read(fd.get(), text.data(), text.size()) : 0;
    if (length <= 0) return 0;
    std::string_view rest{text.data(), static_cast<std::size_t>(length)};
    rest.remove_prefix(std::min(rest.rfind(')'), rest.size()));
    for (int field = 2; field < 22; ++field) {
        const std::size_t space = rest.find(' ');
        if (space == std::string_view::npos) return 0;
        rest.remove_prefix(space + 1);
    }
    std::uint64_t ticks = 0;
    std::from_chars(rest.data(), rest.data() + rest.size(), ticks);
    return ticks;
}

}  // namespace mox
