#include <cerrno>
#include <memory>
#include <string>
#include <utility>
#include <variant>

#include "platform/mox/Connection.h"
#include "platform/mox/ServiceSocket.h"
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

std::string pathIn(mox::View request) {
    const auto value = request.find(kPathKey);
    const mox::Bytes bytes = (value ? value->data() : std::nullopt).value_or(mox::Bytes{});
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

void setError(mox::Reply& reply, const value::Error& error) {
    reply.set(kErrorCodeKey, static_cast<std::uint64_t>(error.code));
    reply.set(kErrorKey, error.localizedDescription());
}

void answer(Extensions& extensions, mox::View request, mox::Reply& reply) {
    const std::string_view name = text(request, kRequestKey);
    if (name == kConsumeRequest) {
        reply.set(kHandleKey, extensions.consume(text(request, kTokenKey)));
    } else if (name == kReleaseRequest) {
        extensions.release(handleIn(request));
    } else if (name == kOpenRequest) {
        auto opened = extensions.open(handleIn(request), pathIn(request));
        if (opened) {
            reply.attach(std::move(*opened));
        } else {
            setError(reply, opened.error());
        }
    } else {
        setError(reply, value::posixError(EINVAL, "unrecognized request"));
    }
}

// The handler owns what the peer has consumed; the connection drops it, and so closes everything, when it is invalid.
void serve(const std::shared_ptr<mox::Connection>& connection) {
    connection->setEventHandler(
        [weak = std::weak_ptr{connection}, extensions = std::make_shared<Extensions>()](const mox::Event& event) {
            const auto* request = std::get_if<mox::Request>(&event);
            const auto peer = weak.lock();
            if (request == nullptr || !peer) return;
            mox::Reply reply{*request};
            answer(*extensions, request->view(), reply);
            peer->send(reply);
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
