#pragma once

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

// The security-task handle of a peer process: reads its entitlements from the bundle of its executable, through the
// directory that was opened when it connected, once, when first asked. Any thread.
class SecurityTask {
public:
    explicit SecurityTask(std::shared_ptr<const mox::PeerIdentity> peer);
    ~SecurityTask();

    // The value of one entitlement, nothing when the peer lacks it, an error (the same each time) when they could not
    // be read. A peer without a bundle has no entitlements, which is no error.
    value::Result<std::optional<value::Value>> value(std::string_view name) const;

private:
    struct State;
    const std::unique_ptr<State> state_;
};

}  // namespace entitlements
