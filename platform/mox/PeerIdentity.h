#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/bundle/Bundle.h"
#include "platform/file/UniqueFd.h"
#include "platform/value/Error.h"

namespace mox {

// Which file it is, whatever it is called.
struct FileId {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    friend bool operator==(const FileId&, const FileId&) = default;
};

// Who a peer is, as the kernel vouches for it at accept and once more when its first frame has echoed the nonce. Read
// while the pidfd shows the process alive, so that a reused pid is never mistaken for the peer. Immutable once a
// connection is delivered; any thread.
struct PeerIdentity {
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    file::UniqueFd pidfd;
    std::uint64_t startTime = 0;  // of the process, in clock ticks since boot; 0 when it cannot be read

    std::optional<FileId> executable;  // what runs there; nothing when it cannot be read

    // The executable's path, only when what runs there is the very file that the daemon finds at that path, and the
    // peer's pids are the daemon's. Nothing when it cannot be read or does not fit: such a peer has no bundle and no
    // entitlements, and is served.
    std::optional<std::string> executablePath;

    // What was opened to look for the executable's bundle, whether or not it found one; null without a path.
    std::shared_ptr<const bundle::Bundle> bundle;

    // The directory of the executable's bundle as it was when the connection was made, for reading its entitlements;
    // empty when there is none.
    file::UniqueFd bundleDirectory;
    std::string bundlePath;
};

// Who connected to this accepted socket, without the bundle. An error where nobody can be served: a process of another
// user (root aside), one that has ended, or one of no pid here.
value::Result<PeerIdentity> readPeer(int socket);

// Whether the process still is what was read: alive, started when it was, running the same executable.
bool isUnchanged(const PeerIdentity& identity);

// When the process started, in clock ticks since boot; 0 when it cannot be read.
std::uint64_t startTimeOf(pid_t pid);

// Finds and opens the bundle of the peer's executable.
void openBundle(PeerIdentity& identity);

}  // namespace mox
