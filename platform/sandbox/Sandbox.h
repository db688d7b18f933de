#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/effort/Effort.h"
#include "platform/file/Identity.h"
#include "platform/file/UniqueFd.h"
#include "platform/mox/PeerIdentity.h"
#include "platform/value/Error.h"

// Sandbox extensions: a token that lets the process that consumes it read one path through the daemon, and the question
// whether a process is sandboxed.
namespace sandbox {

inline constexpr char kReadOnlyFileClass[] = "halvern.file-read";

// What a token beneath a directory costs, in units of effort, when it was issued before for the same unchanged file.
inline constexpr std::uint64_t kUnitsAToken = 6 * effort::kUnitsAMicrosecond;

// Issues a token for the canonical form of the path, of a directory or a regular file: class, path and file identity
// under a MAC whose key never leaves this process and is new at each start. Nothing on refusal, with errno set: ENOENT,
// ENAMETOOLONG (over 1023 bytes once resolved), EACCES (neither directory nor regular file), EINVAL (another class, a
// NUL byte) or what the kernel said. Issuing for the same unchanged file again costs one stat. Any thread.
std::optional<std::string> issueFileExtension(std::string_view extensionClass, const std::string& path);

// The same for a name beneath a directory ("." is the directory itself) that is open here and lies at the canonical
// path: however the path leads by now, the token is for that very directory or for what is reached from it. Links in it
// are followed as long as they stay in it and on its mount; a name that leads out of it is refused with EXDEV. Each
// call is charged.
std::optional<std::string> issueFileExtensionBeneath(std::string_view extensionClass, const file::UniqueFd& directory,
                                                     const std::string& path, const std::string& name);

// The same for what lies at a canonical path and has this identity, as whoever asks knows it: nothing is looked at.
// When another file is there by now, the service refuses the token.
std::optional<std::string> issueFileExtension(std::string_view extensionClass, const std::string& path,
                                              const file::Identity& identity);

// Whether the peer's process runs inside a sandbox: another user namespace than ours, more seccomp filters than we
// have, or another root that carries a container's marker file (/run/.containerenv, /.dockerenv,
// /run/host/container-manager or /.flatpak-info; the environment has no say, since the process writes it itself). What
// cannot be read counts as sandboxed, and so does a process that has ended. Any thread.
bool isSandboxed(const mox::PeerIdentity& peer);
bool isSandboxed(pid_t pid);

// Serves the sandbox service "NAME.sandbox" of this process: registers tokens that peers consume and hands them
// descriptors of regular files at or beneath a token's path, opened read-only beneath it and without following links.
// No descriptor of a directory leaves the process.
//
//   {"request": "consume", "token": string}              -> {"handle": signed integer}, never 0; -1 when refused
//   {"request": "release", "handle": signed integer}     -> {}
//   {"request": "open", "handle": ..., "path": data}     -> {} and the descriptor, or {"errorcode", "error"}: an error
//                                                           number (unsigned) and its text
//
// Handles belong to the connection and go with it; it has 4096 at most. A request that is none of these is answered
// with "errorcode" EINVAL.
class Service {
public:
    static std::shared_ptr<Service> create(const std::string& daemonServiceName);
    virtual ~Service() = default;
    [[nodiscard]] virtual std::optional<value::Error> resume() = 0;
};

// --- The consumer's side, in a host's process. One connection for the whole process; where it breaks, the handles are
// gone. Any thread, and each call waits for the answer (ten seconds unless setPatience() says otherwise); not for use
// on the queue "sandbox_client", where the answers arrive.

// Consumes a token at the sandbox service of the daemon: a handle that is never 0; -1 when refused.
std::int64_t consume(const std::string& token);

// How long these calls wait. A handle that is given after its consumer has stopped waiting is given back at once.
void setPatience(std::chrono::milliseconds patience);

// Gives the handle back; does not wait. One that was refused, or is gone, is given back for nothing.
void release(std::int64_t handle);

// The file at the absolute path, which lies at or beneath the path of a token that was consumed and not released: a
// descriptor open for reading, or an error.
value::Result<file::UniqueFd> openFile(std::int64_t handle, const std::string& path);

// Which daemon's service consume() and the others speak to; by default that of "halvern.velto.vtd". Handles consumed
// before are gone.
void setDaemonServiceName(std::string name);

}  // namespace sandbox
