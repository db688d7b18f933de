#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "Velto/VTAtomic.h"
#include "Velto/VTBundle.h"
#include "platform/entitlements/Entitlements.h"
#include "platform/mox/Connection.h"
#include "platform/queue/Turns.h"
#include "platform/value/Value.h"
#include "vtd/rules/Rules.h"

class Transaction;
class VTDServer;

// One peer process connected to the daemon's service: knows who it is, makes a transaction of each request and queues
// it on the service queue, and refuses further work once the peer is dead, whose holds it has the server release.
//
// Ownership: the connection owns the client, as its context; the client refers to the connection weakly. So it lives as
// long as the connection, and as any transaction that still refers to it.
// Threading: every member may be called from any thread, but for requestCount, which belongs to the service queue,
// and gaveUpHolds, which belongs to the hold table's.
class VTDMoxClient : public std::enable_shared_from_this<VTDMoxClient> {
public:
    // Sets the client up for the connection and resumes that: requests may arrive before this returns. Never null.
    static std::shared_ptr<VTDMoxClient> initWithConnection(const std::shared_ptr<mox::Connection>& connection,
                                                            std::shared_ptr<VTDServer> server);
    ~VTDMoxClient();
    VTDMoxClient(const VTDMoxClient&) = delete;
    VTDMoxClient& operator=(const VTDMoxClient&) = delete;

    void dying();  // the peer says that it is about to end; it is served all the same
    void dead();   // the connection is gone

    pid_t pid() const;  // 0 once the connection object is gone

    // The peer's entitlement, nothing when it lacks it. One that cannot be read is logged and counts as absent.
    std::optional<value::Value> entitlementValueForKey(std::string_view key) const;

    // Whether there is a value and it is neither false nor a number that is 0.
    bool hasEntitlement(std::string_view key) const;

    // What the peer's own entitlement restricts it to: rules, or what is none. Null: nothing. Read at the first call,
    // and shared by the clients of one process.
    struct Restriction {
        std::optional<rules::Rules> allowed;
    };
    const Restriction* restriction() const;

    std::string description() const;

    bool acceptWork() const { return acceptWork_.load(); }
    void setAcceptWork(bool acceptWork) { acceptWork_.store(acceptWork); }
    std::shared_ptr<mox::Connection> connection() const { return connection_.lock(); }
    const std::shared_ptr<VTDServer>& server() const { return server_; }
    const std::shared_ptr<VTBundle>& bundle() const { return bundle_; }  // null when the executable is not known
    std::uint32_t requestCount() const { return requestCount_; }

    // Once its holds were released for good. The hold table's: on the server's syncQueue.
    bool gaveUpHolds() const { return gaveUpHolds_; }
    void setGaveUpHolds() { gaveUpHolds_ = true; }

private:
    class Restrictions;

    VTDMoxClient(const std::shared_ptr<mox::Connection>& connection, std::shared_ptr<VTDServer> server);

    void handleEvent(const mox::Event& event);
    void handleRequest(const mox::Request& request);
    void handleOther(const mox::Object& object);
    void countRequest();
    queue::Owner owner() const;
    void goOnWith(const std::shared_ptr<Transaction>& begun);

    const std::weak_ptr<mox::Connection> connection_;
    const pid_t pid_;
    const std::shared_ptr<VTDServer> server_;
    const std::shared_ptr<VTBundle> bundle_;
    const std::shared_ptr<const mox::PeerProgram> program_;
    const entitlements::SecurityTask task_;
    queue::Turns::Lane lane_;  // its requests' way to the service queue

    mutable std::once_flag restrictionRead_;
    mutable std::shared_ptr<const Restriction> restriction_;  // set once, then only read

    VTAtomic<bool> acceptWork_{true};
    unsigned unexpectedMessages_ = 0;  // that were logged; touched where the connection delivers
    std::uint32_t requestCount_ = 0;   // requests taken from this peer so far; wraps
    bool gaveUpHolds_ = false;
};
