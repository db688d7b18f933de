#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/mox/Charges.h"
#include "platform/mox/Connection.h"
#include "platform/mox/transport/FrameReader.h"
#include "platform/mox/transport/OutputQueue.h"
#include "platform/queue/Reactor.h"

namespace mox {

class AcceptedConnection;

// A message while it lives: its bytes, what they cost, and which reply the peer waits for (0: none). Of the usual size
// it takes one allocation. The object that stands for the bytes owns the ticket, so that no copy of it goes uncharged.
struct Request::Ticket {
    Ticket(const std::shared_ptr<Account>& account, Frame&& frame);
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;

    const std::byte* message() const { return large ? large.get() : small.data(); }

    const std::uint64_t replyId;
    const Charge charge;  // to the account of the connection that it came by, which it identifies
    std::atomic<bool> answered{false};

private:
    std::shared_ptr<const std::byte> large;
    std::array<std::byte, 192> small;
};

// Who accepted a connection and keeps it alive. Called on the connection's queue.
class ConnectionKeeper {
public:
    virtual ~ConnectionKeeper() = default;
    virtual void authenticated(const std::shared_ptr<AcceptedConnection>& connection) = 0;
    virtual void ended(AcceptedConnection& connection) = 0;
    virtual void complain(pid_t pid, std::string_view what, std::string_view why) = 0;  // in the log, within bounds
};

// The service's end of one socket: hello and echo first, then requests in and replies out.
//
// Reading, and the life of the connection, belong to its queue; sending happens on whichever thread asks for it, under
// a lock. A request that finds the connection idle costs one read and one write: a read that did not fill its room has
// emptied the socket, because watches report each change; a reply is written by who sends it. Of a batch of requests by
// several peers the small replies are written at the end of it, which wakes a process that serves them all but once.
class AcceptedConnection final : public Connection,
                                 public Holder,
                                 public queue::Deferred,
                                 public std::enable_shared_from_this<AcceptedConnection> {
public:
    // Not yet at work: start() sends the hello and waits for the echo.
    AcceptedConnection(file::UniqueFd socket, PeerIdentity peer, std::shared_ptr<Account> account, const Bounds& bounds,
                       std::weak_ptr<ConnectionKeeper> keeper);
    void start();

    pid_t pid() const override { return pid_; }
    const std::shared_ptr<const PeerIdentity>& identity() const override { return identity_; }
    void setContext(std::shared_ptr<void> context) override { context_ = std::move(context); }
    void setEventHandler(EventHandler handler) override { handler_ = std::move(handler); }
    void resume() override;
    void send(Reply& reply) override;
    void cancel() override;
    Charge charge(std::size_t bytes) override { return Charge{account_, {.kept = bytes}}; }
    std::string description() const override;

    void readAgain() override;
    void runDeferred() noexcept override;  // sends the replies that were held back
    void endForExcess() override;
    void letGo() override;

private:
    enum class Stage {
        greeting,     // until the echo
        identifying,  // until the program is known, as long as it may take
        delivered,    // to the listener's handler, which has not resumed it yet
        open,
        ended,
    };

    void begin();
    void socketReady(std::uint32_t readiness);
    void read();
    void readOn();
    void deliverFrames();
    bool handle(Frame&& frame);
    bool authenticate(const Frame& echo);
    bool identified(const std::shared_ptr<const PeerProgram>& program);
    bool deliverMessage(Frame&& frame);

    void sendHeldBack();                         // with outputLock_ held
    void afterOutput(OutputQueue::State state);  // likewise
    void dropOutput();                           // likewise
    void checkDrained();

    void breakOff(std::string_view why);  // ends, and says so in the log
    void end();
    void deliverInvalid();

    // Runs a member on the queue, when the connection still lives by then.
    template <typename Member>
    void later(Member member);

    const pid_t pid_;
    const Bounds bounds_;
    const std::shared_ptr<Account> account_;
    const std::weak_ptr<ConnectionKeeper> keeper_;
    const std::shared_ptr<queue::SerialQueue> queue_;

    // Constant once the connection is delivered, or resumed.
    const std::shared_ptr<PeerIdentity> peer_;
    const std::shared_ptr<const PeerIdentity> identity_;
    std::shared_ptr<void> context_;
    EventHandler handler_;

    // The queue's.
    Stage stage_ = Stage::greeting;
    bool resumed_ = false;
    bool paused_ = false;  // by its account
    bool hangup_ = false;  // the peer has closed or ended: reads go on until there is no more
    wire::Nonce nonce_{};
    FrameReader reader_;
    Charge partialCharge_;
    std::unique_ptr<queue::Watch> processWatch_;
    std::unique_ptr<queue::Timer> handshakeTimer_;

    // Guarded by the lock. The socket is read on the queue, and given up there under the lock, with its watch.
    std::mutex outputLock_;
    file::UniqueFd socket_;
    std::unique_ptr<queue::Watch> socketWatch_;
    OutputQueue output_;
    bool heldBack_ = false;  // what is in it has not been tried: runDeferred() comes for it
    Charge outputCharge_;
    std::uint64_t drainPosition_ = 0;  // what must be sent when the timer fires
    std::unique_ptr<queue::Timer> drainTimer_;
};

}  // namespace mox
