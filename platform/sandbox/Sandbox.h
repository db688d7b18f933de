#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/mox/PeerIdentity.h"
#include "platform/queue/SerialQueue.h"
#include "platform/value/Error.h"

// Sandbox extensions: a token that lets the process that consumes it read one path through the daemon, and the question
// whether a process is sandboxed.
namespace sandbox {

inline constexpr char kReadOnlyFileClass[] = "halvern.file-read";

// Issues a token for the canonical form of the path: class, path and file identity under a MAC whose key never leaves
// this process and is new at each start. Nothing on refusal, with errno set. Issuing for the same unchanged file again
// gives the kept token. Any thread.
std::optional<std::string> issueFileExtension(std::string_view extensionClass, const std::string& path);

// Whether the peer's process runs inside a sandbox: another user namespace than ours, more seccomp filters than we
// have, or another root that carries a container marker. What cannot be read counts as sandboxed.
bool isSandboxed(const mox::PeerIdentity& peer);
bool isSandboxed(pid_t pid);

// Serves the sandbox service "SERVICE.sandbox" of this process: registers tokens that peers consume and hands them
// descriptors of regular files at or beneath a token's path, opened read-only beneath it and without following links.
class Service {
public:
    static std::shared_ptr<Service> create(const std::string& daemonServiceName);
    virtual ~Service() = default;
    [[nodiscard]] virtual std::optional<value::Error> resume() = 0;
};

// --- The consumer's side, in a host's process.

// Consumes a token at the sandbox service of the daemon: a handle that is never 0; -1 when refused. Blocks for the
// answer.
std::int64_t consume(const std::string& token);
void release(std::int64_t handle);

// The file at the path, which lies at or beneath the path of a token that was consumed and not released: a descriptor
// open for reading, or an error.
value::Result<file::UniqueFd> openFile(std::int64_t handle, const std::string& path);

// Which daemon's service consume() and the others speak to; by default that of "halvern.velto.vtd".
void setDaemonServiceName(std::string name);

}  // namespace sandbox
