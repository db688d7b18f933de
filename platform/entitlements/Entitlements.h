#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/mox/PeerIdentity.h"
#include "platform/value/Value.h"

// Entitlements: Entitlements.plist beside a bundle's Info.plist, honoured only when it and its bundle are owned by root
// or the user and not writable by others. Names that begin with "halvern.private." count only from bundles on the
// system volume that root owns (in a private root: the user, too); elsewhere they are left out without a word.
namespace entitlements {

inline constexpr char kFile[] = "Entitlements.plist";
inline constexpr char kPrivatePrefix[] = "halvern.private.";

// Those of the bundle whose directory is open here and lies at the path; an error tells why a file that exists is not
// honoured. No file is an empty dictionary. Any thread.
value::Result<value::Dictionary> ofBundle(int bundleDirectory, const std::string& bundlePath);

// The security-task handle of a peer process: its entitlements, as they were read from the bundle of its executable when
// it connected. Any thread.
class SecurityTask {
public:
    explicit SecurityTask(std::shared_ptr<const mox::PeerIdentity> peer);

    // The value of one entitlement, nothing when the peer lacks it, an error (the same each time) when they could not
    // be read. A peer without a bundle has no entitlements, which is no error.
    value::Result<std::optional<value::Value>> value(std::string_view name) const;

private:
    const std::shared_ptr<const mox::PeerIdentity> peer_;
    mutable std::atomic<bool> said_{false};  // in the log, why there are none
};

}  // namespace entitlements
