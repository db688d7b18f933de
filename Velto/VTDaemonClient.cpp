#include "Velto/VTDaemonClient.h"

#include <numeric>
#include <utility>

#include "Velto/VTAssertion.h"
#include "Velto/VTError.h"
#include "platform/logging/Log.h"
#include "platform/text/Format.h"

VTDaemonClient::VTDaemonClient(std::optional<std::string> serviceName)
    : replyQueue_{std::make_shared<queue::SerialQueue>("vtd_client")},
      vtd_{mox::ClientConnection::create(serviceName ? *std::move(serviceName) : VTDefaultServiceName, replyQueue())} {
    const auto connection = vtd();
    connection->setEventHandler([](const mox::Object& event) {
        logging::error(text::format("Communications error: {}", mox::errorDescription(event)));
    });
    connection->resume();
}

// --- Requests

void VTDaemonClient::addPlugIns(std::span<const std::string> paths, Reply reply) {
    send(request(VTRequest::add, paths), std::move(reply));
}

void VTDaemonClient::removePlugIns(std::span<const std::string> paths, Reply reply) {
    send(request(VTRequest::remove, paths), std::move(reply));
}

void VTDaemonClient::bulkPlugins(std::uint64_t flags, Reply reply) {
    mox::Dictionary message = request(VTRequest::bulk);
    message.set(VTKey::flags, flags);
    send(message, std::move(reply));
}

void VTDaemonClient::readyPlugIns(std::span<const value::Uuid> uuids, std::uint64_t flags, Reply reply) {
    mox::Dictionary message = request(VTRequest::ready);
    message.set(VTKey::flags, flags);
    set(message, uuids);
    send(message, std::move(reply));
}

void VTDaemonClient::accessPlugIns(std::span<const value::Uuid> uuids, std::uint64_t flags, Reply reply) {
    mox::Dictionary message = request(VTRequest::access);
    message.set(VTKey::flags, flags);
    set(message, uuids);
    send(message, std::move(reply));
}

void VTDaemonClient::matchPlugIns(const value::Dictionary& rules, std::uint64_t flags, Reply reply) {
    mox::Dictionary message = request(VTRequest::match);
    message.set(VTKey::rules, rules);
    message.set(VTKey::flags, flags);
    send(message, std::move(reply));
}

void VTDaemonClient::setPluginAnnotations(std::span<const value::Uuid> uuids, const value::Dictionary& annotations,
                                          Reply reply) {
    mox::Dictionary message = request(VTRequest::annotate);
    set(message, uuids);
    message.set(VTKey::annotations, annotations);
    send(message, std::move(reply));
}

void VTDaemonClient::holdPlugins(std::span<const std::string> paths, std::uint64_t flags, Reply reply) {
    mox::Dictionary message = request(VTRequest::lock, paths);
    message.set(VTKey::flags, flags);
    send(message, std::move(reply));
}

void VTDaemonClient::releaseHold(const value::Uuid& token, Reply reply) {
    mox::Dictionary message = request(VTRequest::lock);
    set(message, {&token, 1});
    send(message, std::move(reply));
}

// --- Building blocks

mox::Dictionary VTDaemonClient::request(std::string_view name) const {
    mox::Dictionary message;
    message.set(VTKey::request, name);
    message.set(VTKey::version, static_cast<std::uint64_t>(protocolVersion()));
    return message;
}

mox::Dictionary VTDaemonClient::request(std::string_view name, std::span<const std::string> paths) const {
    mox::Dictionary message = request(name);
    message.set(VTKey::paths, value::Array{value::Array::Storage{paths.begin(), paths.end()}});
    return message;
}

void VTDaemonClient::set(mox::Dictionary& message, std::span<const value::Uuid> uuids) {
    message.set(VTKey::uuids, value::Array{value::Array::Storage{uuids.begin(), uuids.end()}});
}

void VTDaemonClient::send(const mox::Dictionary& message, Reply reply) {
    if (!reply) reply = [](const mox::Object&) {};
    const auto connection = vtd();
    auto queue = replyQueue();
    if (queue.get() == &connection->queue()) return connection->send(message, std::move(reply));
    // The connection delivers on the queue that it was made with; either setter has made that another than this.
    connection->send(message, [queue = std::move(queue), reply = std::move(reply)](const mox::Object& object) {
        if (queue->isCurrent()) return reply(object);
        queue->async([reply, object] { reply(object); });
    });
}

// --- Replies and structured values

std::optional<value::Error> VTDaemonClient::errorInReply(const mox::Object& reply) {
    if (reply.isError()) return VTError(VTErrorRequest, mox::errorDescription(reply));

    const auto codeValue = reply.view().find(VTKey::errorCode);
    const auto messageValue = reply.view().find(VTKey::error);
    const std::uint64_t wide = codeValue ? codeValue->unsignedInteger().value_or(0) : 0;
    const auto code = static_cast<std::int32_t>(static_cast<std::uint32_t>(wide));
    const std::optional<std::string_view> message = messageValue ? messageValue->string() : std::nullopt;

    if (code == 0) {
        if (!message) return {};
        throw VTInternalInconsistency{text::format("vtd reported error without a code: {}", *message)};
    }
    return VTError(code, std::string{message.value_or("unknown error returned by Velto subsystem")});
}

std::optional<mox::Encoded> VTDaemonClient::convertToMox(const value::Value& value, std::int64_t version) {
    if (version != VTProtocolVersion) return {};
    mox::Encoder encoder;
    encoder.beginMessage();
    encoder.value(value);
    return std::make_shared<const std::vector<std::byte>>(encoder.take());
}

std::optional<mox::Encoded> VTDaemonClient::convertToMox(std::span<const VTForm> forms, std::int64_t version) {
    if (version != VTProtocolVersion) return {};
    constexpr std::size_t kHeaders = 64;
    mox::Encoder encoder;
    encoder.reserve(std::accumulate(forms.begin(), forms.end(), kHeaders,
                                    [](std::size_t sum, const VTForm& form) { return sum + form.encodedSizeHint(); }));
    encoder.beginMessage();
    mox::Encoder::Container array = encoder.beginArray();
    for (const VTForm& form : forms) {
        mox::Encoder::element(array);
        form.encode(encoder);
    }
    encoder.end(array);
    return std::make_shared<const std::vector<std::byte>>(encoder.take());
}

std::optional<value::Value> VTDaemonClient::convertFromMox(mox::View message) const {
    if (protocolVersion() != VTProtocolVersion) return {};
    const std::optional<mox::View> inside = message.message();
    return inside ? std::optional{inside->toValue()} : std::nullopt;
}
