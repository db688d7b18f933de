#include "platform/readiness/Readiness.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "platform/file/UniqueFd.h"

namespace readiness {

std::optional<value::Error> announce() {
    constexpr std::string_view kReady = "READY=1";
    const char* const name = std::getenv("NOTIFY_SOCKET");
    if (name == nullptr || *name == '\0') return {};

    const std::string_view path{name};
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if ((path.front() != '/' && path.front() != '@') || path.size() >= sizeof address.sun_path) {
        return value::posixError(EINVAL, "NOTIFY_SOCKET names no socket");
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    if (path.front() == '@') address.sun_path[0] = '\0';  // a name that lies in no file system

    const file::UniqueFd socket{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    if (!socket) return value::posixError(errno, "cannot make a socket for NOTIFY_SOCKET");
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    const auto* const target = reinterpret_cast<const sockaddr*>(&address);  // NOLINT: how the call takes any address
    if (::sendto(socket.get(), kReady.data(), kReady.size(), MSG_NOSIGNAL, target, length) < 0) {
        return value::posixError(errno, "cannot write to NOTIFY_SOCKET");
    }
    return {};
}

}  // namespace readiness
