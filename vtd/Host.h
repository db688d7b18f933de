#pragma once

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string_view>

#include "Velto/VTBundle.h"
#include "platform/entitlements/Entitlements.h"
#include "platform/mox/PeerIdentity.h"
#include "platform/value/Value.h"
#include "vtd/rules/Rules.h"

// A host, as far as it is asked which plug-ins it may see and use: its entitlements, what they restrict it to, and
// where its own plug-ins lie.
//
// Ownership: keeps its identity. Threading: any thread. Errors: entitlements that cannot be read are logged, and count
// as absent.
class Host {
public:
    explicit Host(std::shared_ptr<const mox::PeerIdentity> identity);
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    pid_t pid() const { return identity_->pid; }  // 0: it does not run
    const mox::PeerIdentity& identity() const { return *identity_; }
    const std::shared_ptr<VTBundle>& bundle() const { return bundle_; }  // null when the executable is not known

    std::optional<value::Value> entitlementValueForKey(std::string_view key) const;

    // Whether there is a value and it is neither false nor a number that is 0.
    bool hasEntitlement(std::string_view key) const;

    // What the host's own entitlement restricts it to: rules, or what is none. Null: nothing. Read at the first call,
    // and shared by all that are of one process.
    struct Restriction {
        std::optional<rules::Rules> allowed;
    };
    const Restriction* restriction() const;

private:
    class Restrictions;

    const std::shared_ptr<const mox::PeerIdentity> identity_;
    const std::shared_ptr<VTBundle> bundle_;
    const entitlements::SecurityTask task_;

    mutable std::once_flag restrictionRead_;
    mutable std::shared_ptr<const Restriction> restriction_;  // set once, then only read
};

// The entitlement that restricts a host.
inline constexpr char kAllowedPlugInsEntitlement[] = "halvern.developer.velto.allowedplugins";
