#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "platform/mox/PeerIdentity.h"
#include "platform/value/Error.h"

namespace mox {

// Who a process is that need not be connected: read as a peer's identity is, its program included, while a pidfd shows
// it alive, and compared again afterwards. An error for a process of another user (root aside) and for one that has
// ended. May block for as long as the process likes, which may serve by itself the file system that its program lies
// on: for an errand.
value::Result<std::shared_ptr<const PeerIdentity>> identityOf(pid_t pid);

// Who a process of the application, or other bundle, at the canonical path would be: without a pid. An error when there
// is no bundle. May block.
value::Result<std::shared_ptr<const PeerIdentity>> identityOfBundle(const std::string& path);

}  // namespace mox
