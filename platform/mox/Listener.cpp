#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "platform/logging/Log.h"
#include "platform/mox/AcceptedConnection.h"
#include "platform/mox/Connection.h"
#include "platform/mox/ServiceSocket.h"
#include "platform/queue/Reactor.h"
#include "platform/text/Format.h"

namespace mox {

namespace {

constexpr int kAcceptsInATurn = 64;
constexpr rlim_t kReservedDescriptors = 64;        // kept back for files
constexpr std::size_t kConnectionDescriptors = 3;  // socket, process, directory of the bundle
constexpr std::chrono::milliseconds kRetryAccept{250};

rlim_t raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
    if (limit.rlim_cur < limit.rlim_max) {
        const rlimit raised{limit.rlim_max, limit.rlim_max};
        if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
    }
    return limit.rlim_cur;
}

// So many connections that their descriptors leave the reserve alone, and no more than the bound.
Bounds within(Bounds bounds, rlim_t descriptors) {
    const std::size_t room = (std::max<std::size_t>(descriptors, 2 * kReservedDescriptors) - kReservedDescriptors);
    bounds.total.connections = std::min(bounds.total.connections, room / kConnectionDescriptors);
    return bounds;
}

// Whether the next descriptor would be one of those kept back.
bool descriptorsRunOut(int anyDescriptor) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const file::UniqueFd next{::fcntl(anyDescriptor, F_DUPFD_CLOEXEC, 0)};
    return !next || static_cast<rlim_t>(next.get()) + kReservedDescriptors >= limit.rlim_cur;
}

class ServiceListener final : public Listener,
                              public ConnectionKeeper,
                              public std::enable_shared_from_this<ServiceListener> {
public:
    ServiceListener(std::string name, std::shared_ptr<queue::SerialQueue> queue, const Bounds& bounds)
        : name_{std::move(name)}, queue_{std::move(queue)}, bounds_{bounds} {}

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
        ledger_ = std::make_shared<Ledger>(within(bounds_, raiseDescriptorLimit()));
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

private:
    void accept() {
        for (int count = 0; count < kAcceptsInATurn; ++count) {
            if (isPaused()) return;
            file::UniqueFd socket{::accept4(socket_->get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)};
            if (socket) {
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
        const bool lastForNow = descriptorsRunOut(socket.get());
        auto peer = readPeer(socket.get());
        if (!peer) {
            if (peer.error().code != ESRCH)
                logging::notice(text::format("mox: connection refused: {}", peer.error().localizedDescription()));
        } else if (auto account = ledger_->open({peer->pid, peer->startTime})) {
            start(std::move(socket), *std::move(peer), std::move(account));
        } else {
            logging::notice(text::format("mox: connection refused: process {} has too many", peer->pid));
        }
        if (lastForNow) pause();
    }

    void start(file::UniqueFd socket, PeerIdentity peer, std::shared_ptr<Account> account) {
        auto connection = std::make_shared<AcceptedConnection>(std::move(socket), std::move(peer), std::move(account),
                                                               bounds_, weak_from_this());
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

    void pause() {
        const std::lock_guard lock{mutex_};
        if (std::exchange(saidPaused_, true) == false)
            logging::warning(text::format("mox: service {} accepts no connections: descriptors run out", name_));
        retryTimer_ = queue::after(kRetryAccept, queue_, [weak = weak_from_this()] {
            if (const auto self = weak.lock()) self->acceptAgain();
        });
    }

    void acceptAgain() {
        if (!isPaused()) return;
        if (descriptorsRunOut(socket_->get())) return pause();
        {
            const std::lock_guard lock{mutex_};
            retryTimer_.reset();
            saidPaused_ = false;
        }
        accept();
    }

    const std::string name_;
    const std::shared_ptr<queue::SerialQueue> queue_;
    const Bounds bounds_;
    ConnectionHandler handler_;
    std::shared_ptr<Ledger> ledger_;
    std::unique_ptr<ServiceSocket> socket_;
    std::unique_ptr<queue::Watch> watch_;

    std::mutex mutex_;  // guards what follows
    std::unordered_map<const AcceptedConnection*, std::shared_ptr<AcceptedConnection>> connections_;
    std::unique_ptr<queue::Timer> retryTimer_;  // while accepting is paused
    bool saidPaused_ = false;
};

}  // namespace

std::shared_ptr<Listener> listen(std::string serviceName, const std::shared_ptr<queue::SerialQueue>& queue,
                                 const Bounds& bounds) {
    return std::make_shared<ServiceListener>(std::move(serviceName), queue, bounds);
}

}  // namespace mox
