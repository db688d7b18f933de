#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platform/file/UniqueFd.h"
#include "platform/mox/Dictionary.h"

namespace bench {

// One request as it goes over the socket, frame and all.
std::vector<std::byte> requestFrame(const mox::Dictionary& request);

// A bare socket to a service, without the client library: for load that must cost its sender as little as the echo
// server's does, and for clients that behave badly.
class RawConnection {
public:
    explicit RawConnection(const std::string& socketPath);

    int fd() const { return socket_.get(); }
    void shakeHands();  // answers the service's hello
    void sendAll(const std::byte* bytes, std::size_t size) const;

    // Reads what is there; answers whether it completed a frame. Frames are one at a time, as the rounds of a load are.
    bool readFrame();

private:
    file::UniqueFd socket_;
    std::vector<std::byte> received_;
};

}  // namespace bench
