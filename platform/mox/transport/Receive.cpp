#include "platform/mox/transport/Receive.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace mox {

namespace {

void readControl(msghdr& message, Received& received) {
    for (cmsghdr* control = CMSG_FIRSTHDR(&message); control != nullptr; control = CMSG_NXTHDR(&message, control)) {
        if (control->cmsg_level != SOL_SOCKET) continue;
        if (control->cmsg_type == SCM_CREDENTIALS) {
            ucred credentials{};
            std::memcpy(&credentials, CMSG_DATA(control), sizeof credentials);
            received.sender = credentials.pid;
        } else if (control->cmsg_type == SCM_RIGHTS) {
            for (std::size_t at = CMSG_LEN(0); at + sizeof(int) <= control->cmsg_len; at += sizeof(int)) {
                int fd = -1;
                std::memcpy(&fd, CMSG_DATA(control) + (at - CMSG_LEN(0)), sizeof fd);
                received.descriptors.emplace_back(fd);
            }
        }
    }
}

}  // namespace

Received receive(int socket, std::span<std::byte> first, std::span<std::byte> second, Accepting accepting) {
    std::array<iovec, 2> pieces{{{first.data(), first.size()}, {second.data(), second.size()}}};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control;
    msghdr message{};
    message.msg_iov = pieces.data();
    message.msg_iovlen = pieces.size();
    message.msg_control = control.data();
    // Just enough for what is wanted: the kernel drops descriptors that do not fit, and says so.
    message.msg_controllen = accepting == Accepting::credentials ? CMSG_SPACE(sizeof(ucred)) : CMSG_LEN(sizeof(int));

    ssize_t count = 0;
    do {
        count = ::recvmsg(socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    } while (count < 0 && errno == EINTR);

    Received received;
    if (count < 0 && errno == EAGAIN) received.state = Received::State::nothingYet;
    if (count <= 0) return received;
    received.state = Received::State::bytes;
    received.count = static_cast<std::size_t>(count);
    received.filled = received.count == first.size() + second.size();
    received.lostDescriptors = (message.msg_flags & MSG_CTRUNC) != 0;
    readControl(message, received);
    return received;
}

}  // namespace mox
