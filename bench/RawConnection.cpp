#include "bench/RawConnection.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "platform/mox/Wire.h"

namespace bench {

std::vector<std::byte> requestFrame(const mox::Dictionary& request) {
    return mox::wire::frame(mox::wire::FrameKind::request, 1, request.toObject().view().encoded());
}

RawConnection::RawConnection(const std::string& socketPath) : socket_{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)} {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
    if (connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("cannot connect to " + socketPath);
    }
}

void RawConnection::shakeHands() {
    while (!readFrame()) {
    }
    const auto* nonce = received_.data() + mox::wire::kHeaderSize + sizeof(std::uint32_t);
    const auto echo = mox::wire::frame(mox::wire::FrameKind::echo, 0, {nonce, sizeof(mox::wire::Nonce)});
    received_.clear();
    sendAll(echo.data(), echo.size());
}

void RawConnection::sendAll(const std::byte* bytes, std::size_t size) const {
    while (size > 0) {
        const ssize_t sent = send(socket_.get(), bytes, size, MSG_NOSIGNAL);
        if (sent <= 0) throw std::runtime_error("the service closed the connection");
        bytes += sent;
        size -= static_cast<std::size_t>(sent);
    }
}

bool RawConnection::readFrame() {
    // A frame that was complete has been looked at; the next one starts anew.
    const auto length = [this] {
        return received_.size() < sizeof(std::uint32_t)
                   ? SIZE_MAX
                   : sizeof(std::uint32_t) + mox::encoding::load<std::uint32_t>(received_.data());
    };
    if (received_.size() >= length()) received_.clear();
    std::array<std::byte, 4096> bytes;
    const ssize_t count = recv(socket_.get(), bytes.data(), bytes.size(), 0);
    if (count < 0 && errno == EAGAIN) return false;
    if (count <= 0) throw std::runtime_error("the service closed the connection");
    received_.insert(received_.end(), bytes.data(), bytes.data() + count);
    return received_.size() >= length();
}

}  // namespace bench
