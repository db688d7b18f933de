#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/mox/Connection.h"
#include "vtd/Host.h"

// Another host than the client, as which an explained discovery is to be answered ("forPid", "forHost"). Who it is, is
// found out before the request has its turn, as an errand: how long that takes is up to that host.
//
// Threading: none of its own; it is handed from the connection's queue to an errand, and from there to the service
// queue. Only `outcome` is set and read anywhere: as long as it is not "done" the errand may still be at it.
class RequestHost {
public:
    // Null where the request names none.
    static std::shared_ptr<RequestHost> of(const mox::Request& request);

    void resolve();  // may block for ever

    enum class Outcome : std::uint8_t { pending, done, refused };
    Outcome outcome() const { return outcome_; }
    void setOutcome(Outcome outcome) { outcome_ = outcome; }

    bool isWellFormed() const { return pid_ || path_; }
    const std::string& name() const { return name_; }                  // for messages
    const std::shared_ptr<const Host>& host() const { return host_; }  // null when there is none

private:
    std::optional<pid_t> pid_;
    std::optional<std::string> path_;
    std::string name_;
    std::shared_ptr<const Host> host_;
    std::atomic<Outcome> outcome_{Outcome::pending};
};
