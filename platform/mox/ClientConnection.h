#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/mox/Dictionary.h"
#include "platform/mox/Object.h"
#include "platform/queue/SerialQueue.h"

namespace mox {

// A client's connection to a named service. Connects at the first message; when it breaks, each waiting reply closure
// gets an error object, the event handler gets one too, and a later message connects again. The error is
// connectionInvalid when the service could not be reached, and connectionInterrupted when it was there and went away:
// then it may, or may not, have done what it was asked.
//
// Threading: every member may be called from any thread; messages are sent in the order of the calls, by the calling
// thread where nothing waits before them. Closures and events are delivered on the queue given at creation.
class ClientConnection {
public:
    using ReplyHandler = std::function<void(const Object& reply)>;  // a dictionary or an error
    using EventHandler = std::function<void(const Object& event)>;  // errors only

    static std::shared_ptr<ClientConnection> create(std::string serviceName,
                                                    const std::shared_ptr<queue::SerialQueue>& queue);
    virtual ~ClientConnection() = default;  // closes the socket; waiting closures get an error

    virtual void setEventHandler(EventHandler handler) = 0;  // before resume()
    virtual void resume() = 0;                               // messages sent before are sent now
    virtual void send(const Dictionary& message, ReplyHandler reply) = 0;
    virtual void announceTermination() = 0;  // tells the service, where connected, that this process is about to end
    virtual void cancel() = 0;               // closes for good; waiting closures get connectionInvalid
    virtual const queue::SerialQueue& queue() const = 0;  // where it delivers
    virtual std::string description() const = 0;
};

}  // namespace mox
