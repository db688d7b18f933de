#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Velto/VTAtomic.h"
#include "Velto/VTForm.h"
#include "Velto/VTProtocol.h"
#include "platform/mox/ClientConnection.h"
#include "platform/mox/Dictionary.h"
#include "platform/queue/SerialQueue.h"
#include "platform/value/Value.h"

// The client's side of the request protocol: owns one connection to the daemon, builds each request, sends it and hands
// the raw reply, a dictionary or an error, to the caller's closure.
//
// Usable as soon as it is made, whether or not the daemon runs. A connection that breaks gives each waiting closure an
// error and is logged; the next request connects again. When the client goes, the connection goes with it, and what
// still waits gets an error.
//
// Threading: every member may be called from any thread. Replies and connection events are delivered one at a time on
// `replyQueue` ("vtd_client"), replies in the order in which the daemon answers, which is that of the requests.
// Errors: a reply says what went wrong (errorInReply); nothing here waits.
//
// Reading the matches of a discovery. A reply is decoded where it is read: walking it builds nothing and copies
// nothing, and is by far the fastest way to look at many plug-ins.
//
//     client.matchPlugIns(rules, 0, [](const mox::Object& reply) {
//         if (const auto error = VTDaemonClient::errorInReply(reply)) return report(*error);
//         const auto matches = reply.view().find(VTKey::matches);     // absent from a version 2 reply
//         const auto forms = matches ? matches->message() : std::nullopt;
//         if (!forms) return;
//         forms->forEachElement([](mox::View form) {
//             form.forEachEntry([](std::string_view key, mox::View value) { ... value.string() ... });
//         });
//     });
//
// Views are valid while the reply, or a copy of it, lives. For a record instead, one form at a time:
// `form.toValue().dictionary()` into VTPlugInCore::initWithForm. convertFromMox() builds the whole list as a value.
class VTDaemonClient {
public:
    using Reply = std::function<void(const mox::Object& reply)>;

    explicit VTDaemonClient(std::optional<std::string> serviceName = std::nullopt);  // none: VTDefaultServiceName
    VTDaemonClient(const VTDaemonClient&) = delete;
    VTDaemonClient& operator=(const VTDaemonClient&) = delete;

    // --- Requests

    void addPlugIns(std::span<const std::string> paths, Reply reply);
    void removePlugIns(std::span<const std::string> paths, Reply reply);
    void bulkPlugins(std::uint64_t flags, Reply reply);
    void readyPlugIns(std::span<const value::Uuid> uuids, std::uint64_t flags, Reply reply);
    void accessPlugIns(std::span<const value::Uuid> uuids, std::uint64_t flags, Reply reply);
    void matchPlugIns(const value::Dictionary& rules, std::uint64_t flags, Reply reply);  // VTDiscoveryFlags
    void setPluginAnnotations(std::span<const value::Uuid> uuids, const value::Dictionary& annotations, Reply reply);
    void holdPlugins(std::span<const std::string> paths, std::uint64_t flags, Reply reply);  // VTHoldFlags
    void releaseHold(const value::Uuid& token, Reply reply);

    // --- Building blocks, for requests of other shapes

    mox::Dictionary request(std::string_view name) const;
    mox::Dictionary request(std::string_view name, std::span<const std::string> paths) const;
    static void set(mox::Dictionary& message, std::span<const value::Uuid> uuids);
    void send(const mox::Dictionary& message, Reply reply);

    // --- Replies and structured values

    // The error that the reply stands for, of the domain "Velto", or nothing on success. Throws VTInternalInconsistency
    // for a reply with a message and no code, which no daemon of this protocol sends.
    static std::optional<value::Error> errorInReply(const mox::Object& reply);

    // The value in message form, for the one protocol version that has it; nothing for any other. The second takes
    // forms as they are, without building their dictionaries.
    static std::optional<mox::Encoded> convertToMox(const value::Value& value, std::int64_t version);
    static std::optional<mox::Encoded> convertToMox(std::span<const VTForm> forms, std::int64_t version);

    // The value that a message form stands for. Nothing for what is none, and unless `protocolVersion` has message
    // form.
    std::optional<value::Value> convertFromMox(mox::View message) const;

    // --- Properties

    std::shared_ptr<mox::ClientConnection> vtd() const { return vtd_.load(); }
    void setVtd(std::shared_ptr<mox::ClientConnection> connection) { vtd_.store(std::move(connection)); }
    std::shared_ptr<queue::SerialQueue> replyQueue() const { return replyQueue_.load(); }
    void setReplyQueue(std::shared_ptr<queue::SerialQueue> queue) { replyQueue_.store(std::move(queue)); }
    std::int64_t protocolVersion() const { return protocolVersion_.load(); }
    void setProtocolVersion(std::int64_t version) { protocolVersion_.store(version); }

private:
    VTAtomic<std::shared_ptr<queue::SerialQueue>> replyQueue_;
    VTAtomic<std::shared_ptr<mox::ClientConnection>> vtd_;
    VTAtomic<std::int64_t> protocolVersion_{VTProtocolVersion};
};
