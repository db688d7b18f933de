#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <stdexcept>
#include <string>

#include "platform/file/UniqueFd.h"

namespace support {

// What listens for datagrams at a path, or at a name in the abstract ("@NAME"): a service manager, a system log.
class BoundSocket {
public:
    explicit BoundSocket(const std::string& name) {
        sockaddr_un address{AF_UNIX, {}};
        name.copy(address.sun_path, sizeof address.sun_path - 1);
        if (name.front() == '@') address.sun_path[0] = '\0';
        const auto length = static_cast<socklen_t>(sizeof address.sun_family + name.size());
        if (::bind(get(), reinterpret_cast<const sockaddr*>(&address), length) != 0)
            throw std::runtime_error{"cannot bind " + name};
    }

    int get() const { return socket_.get(); }

    // The next datagram; empty when none comes in time.
    std::string receive(int milliseconds = 0) const {
        pollfd arrived{get(), POLLIN, 0};
        ::poll(&arrived, 1, milliseconds);
        std::string datagram(256, '\0');
        datagram.resize(std::max<ssize_t>(::recv(get(), datagram.data(), datagram.size(), 0), 0));
        return datagram;
    }

private:
    const file::UniqueFd socket_{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
};

}  // namespace support
