#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/mox/Connection.h"

// The daemon's side of a connection without a socket behind it: a test delivers events to it and reads what was sent.
class FakePeer : public mox::Connection {
public:
    void deliver(const value::Dictionary& request) { handler_(mox::Request{mox::Object{request}, nullptr}); }
    void deliver(mox::ErrorCode code) {
        handler_(mox::Object{value::Error{"mox", static_cast<std::int64_t>(code), "as told"}});
    }

    // The replies so far, as dictionaries.
    std::vector<value::Dictionary> takeReplies() { return std::exchange(replies_, {}); }

    pid_t pid() const override { return 4711; }
    const std::shared_ptr<const mox::PeerIdentity>& identity() const override { return identity_; }
    void setContext(std::shared_ptr<void> context) override { context_ = std::move(context); }
    void setEventHandler(EventHandler handler) override { handler_ = std::move(handler); }
    void resume() override {}
    void send(mox::Reply& reply) override { replies_.push_back(*reply.toObject().view().toValue().dictionary()); }
    void cancel() override {}
    mox::Charge charge(std::size_t) override { return {}; }
    std::string description() const override { return "<fake>"; }

private:
    const std::shared_ptr<const mox::PeerIdentity> identity_ = std::make_shared<const mox::PeerIdentity>();
    std::shared_ptr<void> context_;
    EventHandler handler_;
    std::vector<value::Dictionary> replies_;  // touched on the service queue
};
