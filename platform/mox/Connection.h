#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "platform/mox/Charges.h"
#include "platform/mox/Dictionary.h"
#include "platform/mox/Object.h"
#include "platform/mox/PeerIdentity.h"
#include "platform/queue/SerialQueue.h"

namespace mox {

// A request as received: the dictionary and the way to answer it (a one-way message has none: a reply to it goes
// nowhere). Copies are the same request. While any copy lives the
// request counts against its connection's bounds; when the last one goes unanswered, nothing is sent.
class Request {
public:
    struct Ticket;  // which reply the peer waits for, and the charge; private to the connection

    // The dictionary lies in the ticket, and so keeps it; a request that no connection made has none.
    Request(Object dictionary, Ticket* ticket) : dictionary_{std::move(dictionary)}, ticket_{ticket} {}

    const Object& object() const { return dictionary_; }
    View view() const { return dictionary_.view(); }
    Ticket* ticket() const { return ticket_; }

private:
    Object dictionary_;
    Ticket* ticket_;
};

// The reply to one request, bound to it when it is made.
class Reply : public Dictionary {
public:
    explicit Reply(const Request& request) : request_{request} {}

    // So many bytes more are about to be put into it: charges them to its connection before they exist. False when
    // that would be more than the connection's process may have waiting beside other replies, or all together: the
    // answer is an error then. A reply of some kilobytes needs none; a large one without it costs its connection when
    // it is sent. Not with a lock held.
    [[nodiscard]] bool reserve(std::size_t bytes);

    // The same for a descriptor that is about to be opened: charges it where there is room. Where there is not, makes
    // some at the cost of who holds most, and where that is this peer itself there is none: the answer is an error.
    [[nodiscard]] Room reserveDescriptor();

    // A descriptor of a regular file that goes with the reply. Where the kernel passes no more of them, because too
    // many are on their way to peers that do not take them, the reply goes without.
    void attach(file::UniqueFd descriptor) {
        descriptor_ = std::make_shared<const file::UniqueFd>(std::move(descriptor));
    }

    Request::Ticket* ticket() const { return request_.ticket(); }
    const std::shared_ptr<const file::UniqueFd>& descriptor() const { return descriptor_; }

    // For the connection, when it has the whole.
    [[nodiscard]] bool reserveRest(std::size_t size) { return size <= needed_ || reserve(size - needed_); }
    std::optional<Charge> takeCharge() { return std::exchange(charge_, std::nullopt); }

private:
    static constexpr std::size_t kUncharged = std::size_t{16} << 10;
    static constexpr std::size_t kStep = std::size_t{64} << 10;
    bool charge(const Holdings& more);

    const Request request_;
    std::shared_ptr<const file::UniqueFd> descriptor_;
    std::optional<Charge> charge_;
    std::size_t needed_ = 0;
    std::size_t reserved_ = kUncharged;
};

// What a connection's handler is given: a request, or an object that is either an error (Object::isError;
// connectionInvalid is always the last event) or a message that is no dictionary.
using Event = std::variant<Request, Object>;

// One accepted peer, on the daemon's side. Events are delivered one at a time, in order, on the connection's own serial
// queue; they start with resume(). The connection is invalid, once, after all its other events, when the peer closes
// the socket, breaks the protocol or ends; a process's end counts even while a child of its keeps the socket open. The
// listener keeps the connection alive until then, and ends it when the listener goes.
//
// A peer cannot make the daemon wait, or grow beyond the bounds of Charges.h: past them its requests are left unread.
//
// Threading: every member may be called from any thread.
class Connection {
public:
    using EventHandler = std::function<void(const Event&)>;

    virtual ~Connection() = default;  // runs the context's finalizer

    virtual pid_t pid() const = 0;
    virtual const std::shared_ptr<const PeerIdentity>& identity() const = 0;  // the peer's audit token

    // The context lives as long as the connection object: it is released when the connection is destroyed.
    virtual void setContext(std::shared_ptr<void> context) = 0;
    // Before resume(). Dropped, with what it captured, after connectionInvalid has been delivered.
    virtual void setEventHandler(EventHandler handler) = 0;
    virtual void resume() = 0;

    // Sends the reply, once; later replies to the same request are dropped, as is one to a peer that is gone. Never
    // blocks: what the peer does not take at once is taken from the reply, and queued within the connection's bounds.
    virtual void send(Reply& reply) = 0;

    virtual void cancel() = 0;  // ends the connection; its handler gets connectionInvalid

    // Charges the peer with so many bytes, roughly, that the service keeps for it until the charge goes (Charges.h).
    virtual Charge charge(std::size_t bytes) = 0;

    virtual std::string description() const = 0;
};

// A named service's socket in the runtime directory.
class Listener {
public:
    using ConnectionHandler = std::function<void(const std::shared_ptr<Connection>&)>;

    virtual ~Listener() = default;

    // Called on the queue given to listen() once for each new connection, before any of its events; the connection
    // delivers nothing until the handler resumes it. Never called for an error. Set before resume().
    virtual void setConnectionHandler(ConnectionHandler handler) = 0;

    // Starts accepting, once. An error (the service is taken, the directory is not ours) says what and by whom. Raises
    // the process's limit on descriptors as far as it goes.
    [[nodiscard]] virtual std::optional<value::Error> resume() = 0;
};

// Creates the listener, not yet started, for the service name (checked in resume(): isServiceName()). All listeners of
// a process share one set of bounds, but for those that are given their own.
std::shared_ptr<Listener> listen(std::string serviceName, const std::shared_ptr<queue::SerialQueue>& queue);
std::shared_ptr<Listener> listen(std::string serviceName, const std::shared_ptr<queue::SerialQueue>& queue,
                                 const Bounds& bounds);

}  // namespace mox
