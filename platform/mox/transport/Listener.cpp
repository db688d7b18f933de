#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "platform/logging/Log.h"
#include "platform/mox/Connection.h"
#include "platform/mox/ServiceSocket.h"
#include "platform/mox/transport/AcceptedConnection.h"
#include "platform/mox/transport/Complaints.h"
#include "platform/mox/transport/Descriptors.h"
#include "platform/queue/Reactor.h"
#include "platform/text/Format.h"

namespace mox {

namespace {

constexpr int kAcceptsInATurn = 16;  // then others have theirs
constexpr std::chrono::milliseconds kRetryAccept{2};

short readinessOf(int socket) {
    pollfd state{socket, POLLIN, 0};
    return ::poll(&state, 1, 0) == 1 ? state.revents : short{0};
}
bool isReadable(int socket) {
    return (readinessOf(socket) & POLLIN) != 0;
}
bool hasHungUp(int socket) {
    return (readinessOf(socket) & POLLHUP) != 0;
}

class ServiceListener final : public Listener,
                              public ConnectionKeeper,
                              public std::enable_shared_from_this<ServiceListener> {
public:
    ServiceListener(std::string name, std::shared_ptr<queue::SerialQueue> queue, std::shared_ptr<Ledger> ledger)
        : name_{std::move(name)},
          queue_{std::move(queue)},
          ledger_{std::move(ledger)},
          complaints_{std::make_shared<Complaints>(name_, queue_)} {}

    ~ServiceListener() override {
        for (const auto& [key, connection] : connections_) connection->cancel();
    }

    void setConnectionHandler(ConnectionHandler handler) override { handler_ = std::move(handler); }

    std::optional<value::Error> resume() override {
        auto socket = ServiceSocket::open(name_);
        if (!socket) return socket.error();
        const int on = 1;
        // Inherited by what is accepted on newer kernels; on others set there.
        ::setsockopt((*socket)->get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
        raiseDescriptorLimit();
        socket_ = *std::move(socket);
        // In the queue's turn: a peer may be waiting already, and accept() uses the watch.
        const int error = queue_->sync([this] {
            watch_ = queue::watch(socket_->get(), queue_, [weak = weak_from_this()](std::uint32_t) {
                if (const auto self = weak.lock()) self->accept();
            });
            return watch_ ? 0 : errno;
        });
        if (error != 0) return value::posixError(error, text::format("socket of service {}", name_));
        return {};
    }

    void authenticated(const std::shared_ptr<AcceptedConnection>& connection) override {
        queue_->async([weak = weak_from_this(), connection] {
            const auto self = weak.lock();
            if (self && self->handler_) self->handler_(connection);
        });
    }

    void ended(AcceptedConnection& connection) override {
        std::shared_ptr<AcceptedConnection> last;
        const std::lock_guard lock{mutex_};
        const auto at = connections_.find(&connection);
        if (at == connections_.end()) return;
        last = std::move(at->second);
        connections_.erase(at);
        if (!retryTimer_) return;  // not waiting for descriptors
        queue_->async([weak = weak_from_this()] {
            if (const auto self = weak.lock()) self->acceptAgain();
        });
    }

    void complain(pid_t pid, std::string_view what, std::string_view why) override { complaints_->say(pid, what, why); }

private:
    void accept() {
        if (isPaused()) return;
        // Asked once for a turn, as long as it lasts: in a storm most that come are gone, and keep none.
        std::ptrdiff_t spare = freeDescriptors();
        for (int count = 0; count < kAcceptsInATurn; ++count) {
            if (spare < std::ptrdiff_t{kConnectionDescriptors}) {
                if (!isReadable(socket_->get())) return;  // nobody makes room for nobody
                if (ledger_->makeRoom(kConnectionDescriptors, nullptr) != Room::now) return pause();
                spare = kConnectionDescriptors;
            }
            file::UniqueFd socket{::accept4(socket_->get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)};
            if (socket) {
                // The cheap way out: who connects and closes without pause must not keep others waiting.
                if (hasHungUp(socket.get())) continue;
                spare -= kConnectionDescriptors;
                admit(std::move(socket));
                continue;
            }
            if (errno == EAGAIN) return;
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) return pause();
        }
        watch_->again(queue::Watch::readable);
    }

    void admit(file::UniqueFd socket) {
        const int on = 1;
        ::setsockopt(socket.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
        auto peer = readPeer(socket.get());
        if (!peer) {
            if (peer.error().code != ESRCH) complain(0, "a connection is refused", peer.error().localizedDescription());
        } else if (auto account = ledger_->open({peer->pid, peer->startTime})) {
            start(std::move(socket), *std::move(peer), std::move(account));
        } else {
            complain(peer->pid, "refused", "its process has too many");
        }
    }

    void start(file::UniqueFd socket, PeerIdentity peer, std::shared_ptr<Account> account) {
        auto connection = std::make_shared<AcceptedConnection>(std::move(socket), std::move(peer), std::move(account),
                                                               ledger_->bounds(), weak_from_this());
        {
            const std::lock_guard lock{mutex_};
            connections_.emplace(connection.get(), connection);
        }
        connection->start();
    }

    bool isPaused() {
        const std::lock_guard lock{mutex_};
        return retryTimer_ != nullptr;
    }

    // Until those have gone that were told to, or files have been closed.
    void pause() {
        complain(0, "accepts no connections for a moment", "descriptors run out");
        const std::lock_guard lock{mutex_};
        retryTimer_ = queue::after(kRetryAccept, queue_, [weak = weak_from_this()] {
            if (const auto self = weak.lock()) self->acceptAgain();
        });
    }

    void acceptAgain() {
        {
            const std::lock_guard lock{mutex_};
            if (!retryTimer_) return;
            retryTimer_.reset();
        }
        accept();
    }

    const std::string name_;
    const std::shared_ptr<queue::SerialQueue> queue_;
    const std::shared_ptr<Ledger> ledger_;
    const std::shared_ptr<Complaints> complaints_;
    ConnectionHandler handler_;
    std::unique_ptr<ServiceSocket> socket_;
    std::unique_ptr<queue::Watch> watch_;

    std::mutex mutex_;  // guards what follows
    std::unordered_map<const AcceptedConnection*, std::shared_ptr<AcceptedConnection>> connections_;
    std::unique_ptr<queue::Timer> retryTimer_;  // while accepting is paused
};

}  // namespace

std::shared_ptr<Listener> listen(std::string serviceName, const std::shared_ptr<queue::SerialQueue>& queue) {
    return std::make_shared<ServiceListener>(std::move(serviceName), queue, Ledger::shared());
}

std::shared_ptr<Listener> listen(std::string serviceName, const std::shared_ptr<queue::SerialQueue>& queue,
                                 const Bounds& bounds) {
    return std::make_shared<ServiceListener>(std::move(serviceName), queue, std::make_shared<Ledger>(bounds));
}

}  // namespace mox
