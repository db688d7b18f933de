#include <cerrno>
#include <chrono>
#include <climits>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <variant>

#include "platform/mounts/Mounts.h"
#include "platform/mox/Connection.h"
#include "platform/mox/ServiceSocket.h"
#include "platform/queue/Errands.h"
#include "platform/queue/SerialQueue.h"
#include "platform/sandbox/Extensions.h"
#include "platform/sandbox/Messages.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/text/Format.h"

namespace sandbox {

namespace {

std::string_view text(mox::View request, std::string_view key) {
    const auto value = request.find(key);
    return (value ? value->string() : std::nullopt).value_or(std::string_view{});
}

// 0, which no handle is, when there is none.
std::int64_t handleIn(mox::View request) {
    const auto value = request.find(kHandleKey);
    return (value ? value->signedInteger() : std::nullopt).value_or(0);
}

// A path that no call would take is not even copied, nor is a request kept for an errand that has room for more.
value::Result<std::string> pathIn(mox::View request) {
    constexpr std::size_t kRest = 256;  // of the message
    if (request.encoded().size() > PATH_MAX + kRest) return value::posixError(ENAMETOOLONG, "path");
    const auto value = request.find(kPathKey);
    const mox::Bytes bytes = (value ? value->data() : std::nullopt).value_or(mox::Bytes{});
    return std::string{reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

void setError(mox::Reply& reply, const value::Error& error) {
    reply.set(kErrorCodeKey, static_cast<std::uint64_t>(error.code));
    reply.set(kErrorKey, error.localizedDescription());
}

// While others, who have most, are ended for it.
bool awaitDescriptor(mox::Reply& reply) {
    constexpr int kTries = 50;
    mox::Room room = reply.reserveDescriptor();
    for (int tries = 0; room == mox::Room::soon && tries < kTries; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds{1});
        room = reply.reserveDescriptor();
    }
    return room == mox::Room::now;
}

// What one peer has consumed, and who it is. Belongs to the connection's queue.
struct Consumer {
    Extensions extensions;
    queue::Errands::Owner process;
    mox::Charge charge;  // for the extensions
};

// Roughly, in memory.
constexpr std::size_t kBytesAnExtension = 768;

// On a thread that may block: the token's path may lie on a file system that never answers. The extensions are copied,
// since the handle may be given back meanwhile.
void open(const Extensions& extensions, std::int64_t handle, const std::string& path, mox::Reply& reply) {
    if (!awaitDescriptor(reply)) return setError(reply, value::posixError(EMFILE, "open"));
    if (queue::Errands::shared().isCrowded() && !mounts::canonicalPathWhereAnswered(path))
        return setError(reply, value::posixError(errno, path));
    auto opened = extensions.open(handle, path);
    if (opened) {
        reply.attach(std::move(*opened));
    } else {
        setError(reply, opened.error());
    }
}

void openElsewhere(const Consumer& consumer, const mox::Request& request, const std::weak_ptr<mox::Connection>& weak) {
    const auto reply = std::make_shared<mox::Reply>(request);
    const auto send = [weak](mox::Reply& answer) {
        if (const auto peer = weak.lock()) peer->send(answer);
    };
    const std::int64_t handle = handleIn(request.view());
    auto path = pathIn(request.view());
    const auto extension = consumer.extensions.only(handle);
    if (!path || !extension) {
        setError(*reply, path ? value::posixError(EBADF, "no such handle") : path.error());
        return send(*reply);
    }
    queue::Errands::shared().run(
        consumer.process,
        [weak, reply, handle, path = *std::move(path), extension = *extension] {
            if (!weak.expired()) open(extension, handle, path, *reply);
        },
        [reply, request, send](queue::Errands::Outcome outcome) {
            if (outcome == queue::Errands::Outcome::done) return send(*reply);
            mox::Reply refusal{request};
            setError(refusal, value::posixError(EAGAIN, "open"));
            send(refusal);
        });
}

void answer(Consumer& consumer, const mox::Request& request, mox::Reply& reply) {
    const std::string_view name = text(request.view(), kRequestKey);
    if (name == kConsumeRequest) {
        const bool hasRoom = consumer.charge.reserve({.kept = kBytesAnExtension});
        const std::int64_t handle = hasRoom ? consumer.extensions.consume(text(request.view(), kTokenKey)) : kRefused;
        reply.set(kHandleKey, handle);
        consumer.charge.change({.kept = consumer.extensions.size() * kBytesAnExtension});
    } else if (name == kReleaseRequest) {
        consumer.extensions.release(handleIn(request.view()));
        consumer.charge.change({.kept = consumer.extensions.size() * kBytesAnExtension});
    } else {
        setError(reply, value::posixError(EINVAL, "unrecognized request"));
    }
}

// The handler owns what the peer has consumed; the connection drops it, and so closes everything, when it is invalid.
void serve(const std::shared_ptr<mox::Connection>& connection) {
    const auto& peer = *connection->identity();
    connection->setEventHandler([weak = std::weak_ptr{connection},
                                 consumer = std::make_shared<Consumer>(Consumer{
                                     {}, {peer.pid, peer.startTime}, connection->charge(0)})](const mox::Event& event) {
        const auto* request = std::get_if<mox::Request>(&event);
        const auto connected = weak.lock();
        if (request == nullptr || !connected) return;
        if (text(request->view(), kRequestKey) == kOpenRequest) return openElsewhere(*consumer, *request, weak);
        mox::Reply reply{*request};
        answer(*consumer, *request, reply);
        connected->send(reply);
    });
    connection->resume();
}

class MoxService : public Service {
public:
    explicit MoxService(const std::string& daemonServiceName)
        : daemonServiceName_{daemonServiceName},
          listener_{mox::listen(serviceNameFor(daemonServiceName), std::make_shared<queue::SerialQueue>("sandbox"))} {
        listener_->setConnectionHandler(serve);
    }

    std::optional<value::Error> resume() override {
        if (!mox::isServiceName(serviceNameFor(daemonServiceName_))) {  // said of the name that somebody has given
            return value::Error{"sandbox", EINVAL,
                                text::format("\"{}\" cannot name a service: a plain file name of at most {} bytes can",
                                             daemonServiceName_, mox::kLongestServiceName - serviceNameFor({}).size())};
        }
        return listener_->resume();
    }

private:
    const std::string daemonServiceName_;
    const std::shared_ptr<mox::Listener> listener_;
};

}  // namespace

std::shared_ptr<Service> Service::create(const std::string& daemonServiceName) {
    return std::make_shared<MoxService>(daemonServiceName);
}

}  // namespace sandbox
