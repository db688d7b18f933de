#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cstddef>
#include <stdexcept>
#include <string>

#include "platform/file/UniqueFd.h"

namespace support {

// What listens for datagrams at a path, or at a name in the abstract ("@NAME"): a service manager, a system log.
class BoundSocket {
public:
    explicit BoundSocket(const std::string& name)
        : socket_{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)} {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof address.sun_path - 1);
        if (name.front() == '@') address.sun_path[0] = '\0';
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        if (::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), length) != 0) {
            throw std::runtime_error{"cannot bind " + name};
        }
    }

    int get() const { return socket_.get(); }

    // The next datagram; empty when none comes in time.
    std::string receive(int milliseconds = 0) const {
        pollfd arrived{socket_.get(), POLLIN, 0};
        ::poll(&arrived, 1, milliseconds);
        std::array<char, 256> buffer;
        const ssize_t size = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
        return {buffer.data(), size > 0 ? static_cast<std::size_t>(size) : 0};
    }

private:
    const file::UniqueFd socket_;
};

}  // namespace support
