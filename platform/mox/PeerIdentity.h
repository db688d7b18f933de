#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "platform/file/UniqueFd.h"

namespace mox {

// Who a peer is, as the kernel vouches for it at accept and once more when its first frame has echoed the nonce. Read
// while the pidfd shows the process alive, so that a reused pid is never mistaken for the peer. Immutable; any thread.
struct PeerIdentity {
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    file::UniqueFd pidfd;
    std::uint64_t startTime = 0;  // of the process, in clock ticks since boot

    // The executable's path, only when what runs there is the very file (device and inode) that the daemon finds at
    // that path. Nothing when it cannot be read or does not fit: such a peer has no bundle and no entitlements.
    std::optional<std::string> executablePath;

    // The directory of the executable's bundle as it was when the connection was made, for reading its entitlements;
    // empty when there is none.
    file::UniqueFd bundleDirectory;
    std::string bundlePath;
};

}  // namespace mox
