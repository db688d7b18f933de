#pragma once

#include <sys/types.h>

#include <compare>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/file/UniqueFd.h"
#include "platform/value/Error.h"

namespace mox {

struct PeerProgram;

// Which file it is, whatever it is called.
struct FileId {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    friend auto operator<=>(const FileId&, const FileId&) = default;
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

    // What the executable is a part of; null until the connection is delivered, shared by all connections of the process.
    std::shared_ptr<const PeerProgram> program;

    // The executable's path; nothing when it is not known, see PeerProgram.
    std::optional<std::string> executablePath() const;
};

// Who connected to this accepted socket, without the program. Nothing here waits for a file system. An error where nobody can be served: a process of another
// user (root aside), one that has ended, or one of no pid here.
value::Result<PeerIdentity> readPeer(int socket);

// The file at a path, by its attributes as the kernel has them at hand: a file system that a peer serves itself is not
// asked for them, though it may be for the way there. Nothing when there is none.
std::optional<FileId> identify(const std::string& path, int flags = 0);

// Whether the process still is what was read: alive, started when it was, running the same executable.
bool isUnchanged(const PeerIdentity& identity);

// When the process started, in clock ticks since boot; 0 when it cannot be read.
std::uint64_t startTimeOf(pid_t pid);

}  // namespace mox
