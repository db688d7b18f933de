#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "platform/file/UniqueFd.h"

namespace mox {

// What one read from a Mox socket gave.
struct Received {
    enum class State { bytes, nothingYet, ended };

    State state = State::ended;
    std::size_t count = 0;
    bool filled = false;                      // there was no more room: more may be waiting
    std::optional<pid_t> sender;              // whose bytes these are, where the socket asks for credentials
    std::vector<file::UniqueFd> descriptors;  // at most one
    bool lostDescriptors = false;             // some came that were not wanted; they are closed already
};

// Which descriptors a read lets in; others are closed by the kernel before this process has them.
enum class Accepting { credentials, descriptors };

// Reads into the first span, then into the second. Never waits.
Received receive(int socket, std::span<std::byte> first, std::span<std::byte> second, Accepting accepting);

}  // namespace mox
