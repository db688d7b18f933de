#include "platform/mox/ClientConnection.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <system_error>
#include <utility>

#include "platform/mox/ServiceSocket.h"
#include "platform/mox/transport/FrameReader.h"
#include "platform/mox/transport/OutputQueue.h"
#include "platform/mox/transport/Receive.h"
#include "platform/paths/Paths.h"
#include "platform/queue/Reactor.h"
#include "platform/text/Format.h"

namespace mox {

namespace {

constexpr std::size_t kChunk = std::size_t{32} << 10;
constexpr int kReadsInATurn = 64;
constexpr std::chrono::milliseconds kRetryConnect{2};  // while the service's backlog is full
constexpr int kConnectTries = 5000;

Object errorObject(ErrorCode code, std::string message) {
    return Object{value::Value{value::Error{"mox", static_cast<std::int64_t>(code), std::move(message)}}};
}

// One socket to the service, from connect() to its end. Its reader and descriptors belong to the client's queue.
struct Link {
    file::UniqueFd socket;
    std::unique_ptr<queue::Watch> watch;
    FrameReader reader{FrameReader::Sender::service, kReplyLimits.bytes};
    std::deque<file::UniqueFd> descriptors;  // that came, and whose frames have not yet
    bool hangup = false;
};

// Why a link cannot go on.
struct Break {
    ErrorCode code;
    std::string reason;
};

class Client final : public ClientConnection, public std::enable_shared_from_this<Client> {
public:
    Client(std::string name, const std::shared_ptr<queue::SerialQueue>& queue)
        : name_{std::move(name)}, queue_{queue} {}
    ~Client() override;

    void setEventHandler(EventHandler handler) override { eventHandler_ = std::move(handler); }
    void resume() override;
    void send(const Dictionary& message, ReplyHandler reply) override;
    void announceTermination() override;
    void cancel() override;
    const queue::SerialQueue& queue() const override { return *queue_; }
    std::string description() const override {
        return text::format("<mox connection {} service={}>", static_cast<const void*>(this), name_);
    }

private:
    enum class Stage {
        idle,        // no socket; the next message connects
        connecting,  // a socket that waits for the backlog, or for the hello
        open,
        failed,     // waiting closures are about to be told
        cancelled,  // for good
    };
    using Waiting = std::map<std::uint64_t, ReplyHandler>;  // by reply id, so in the order of sending

    // With lock_ held.
    void sendNow(OutgoingFrame&& frame);
    void flush();
    void connect(int tries);
    int connectSocket(int socket) const;
    void fail(Break reason);

    // On the queue.
    void socketReady(std::uint32_t readiness);
    std::optional<Break> read(Link& link);
    std::optional<Break> deliverFrames(Link& link);
    std::optional<Break> greet(Link& link, const Frame& hello);
    std::optional<Break> deliverReply(Link& link, Frame&& frame);
    void breakOff(const Break& reason);

    Break interrupted(std::string_view why) const {
        return {ErrorCode::connectionInterrupted, text::format("connection to service {} broke: {}", name_, why)};
    }
    Break unreachable(std::string_view why) const {
        return {ErrorCode::connectionInvalid, text::format("cannot reach service {}: {}", name_, why)};
    }

    const std::string name_;
    const std::shared_ptr<queue::SerialQueue> queue_;
    EventHandler eventHandler_;  // the queue's, once resumed

    std::mutex lock_;  // guards what follows
    bool resumed_ = false;
    Stage stage_ = Stage::idle;
    std::uint64_t lastReplyId_ = 0;
    Waiting waiting_;
    Waiting::node_type spare_;  // of a reply that came, for the next request
    OutputQueue output_;
    std::shared_ptr<Link> link_;
    std::unique_ptr<queue::Timer> retryTimer_;
};

Client::~Client() {
    if (waiting_.empty()) return;
    queue_->async([waiting = std::move(waiting_), name = name_] {
        const Object error =
            errorObject(ErrorCode::connectionInvalid, text::format("the connection to service {} was given up", name));
        for (const auto& [id, reply] : waiting) {
            if (reply) reply(error);
        }
    });
}

void Client::resume() {
    const std::lock_guard lock{lock_};
    if (std::exchange(resumed_, true)) return;
    if (stage_ == Stage::idle && !waiting_.empty()) connect(kConnectTries);
}

void Client::send(const Dictionary& message, ReplyHandler reply) {
    const std::lock_guard lock{lock_};
    const std::uint64_t id = ++lastReplyId_;
    if (spare_) {
        spare_.key() = id;
        spare_.mapped() = std::move(reply);
        waiting_.insert(waiting_.end(), std::move(spare_));
    } else {
        waiting_.emplace_hint(waiting_.end(), id, std::move(reply));
    }
    if (stage_ == Stage::failed) return;
    if (stage_ == Stage::cancelled) return fail({ErrorCode::connectionInvalid, "the connection was cancelled"});

    OutgoingFrame frame{wire::FrameKind::request, id, message};
    if (stage_ == Stage::open) return sendNow(std::move(frame));
    output_.append(std::move(frame));
    if (resumed_ && stage_ == Stage::idle) connect(kConnectTries);
}

void Client::announceTermination() {
    const std::lock_guard lock{lock_};
    if (stage_ == Stage::open) sendNow(OutgoingFrame{wire::FrameKind::terminationImminent, 0, Bytes{}});
}

// A socket that is broken reports its end to its reader, which tells all who wait.
void Client::sendNow(OutgoingFrame&& frame) {
    if (output_.send(link_->socket.get(), std::move(frame)) == OutputQueue::State::blocked)
        link_->watch->awaitWritable();
}

void Client::flush() {
    if (output_.flush(link_->socket.get()) == OutputQueue::State::blocked) link_->watch->awaitWritable();
}

void Client::cancel() {
    const std::lock_guard lock{lock_};
    if (stage_ == Stage::cancelled) return;
    stage_ = Stage::cancelled;
    fail({ErrorCode::connectionInvalid, text::format("the connection to service {} was cancelled", name_)});
}

// A connect() that cannot be done at once finds the backlog full: the service is alive and behind, and asked again
// soon.
void Client::connect(int tries) {
    stage_ = Stage::connecting;
    retryTimer_.reset();
    auto link = std::make_shared<Link>();
    link->socket = file::UniqueFd{::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    const int error = link->socket ? connectSocket(link->socket.get()) : errno;
    if (error == EAGAIN && tries > 1) {
        retryTimer_ = queue::after(kRetryConnect, queue_, [weak = weak_from_this(), tries] {
            const auto self = weak.lock();
            if (!self) return;
            const std::lock_guard lock{self->lock_};
            if (self->stage_ == Stage::connecting) self->connect(tries - 1);
        });
        return;
    }
    if (error != 0) return fail(unreachable(std::generic_category().message(error)));

    link->watch = queue::watch(link->socket.get(), queue_, [weak = weak_from_this()](std::uint32_t readiness) {
        if (const auto self = weak.lock()) self->socketReady(readiness);
    });
    if (!link->watch) return fail(unreachable("the socket cannot be watched"));
    link_ = std::move(link);
}

// 0 or an errno.
int Client::connectSocket(int socket) const {
    if (!isServiceName(name_)) return EINVAL;
    const file::UniqueFd directory{::open(paths::directories().runtime.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
    if (!directory) return errno;
    const sockaddr_un address = serviceAddress(directory.get(), name_);
    if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return errno;

    ucred service{};
    socklen_t size = sizeof service;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &service, &size) != 0) return errno;
    return service.uid == ::geteuid() || service.uid == 0 ? 0 : EACCES;
}

// The closures are told on the queue; what is sent until then shares their fate.
void Client::fail(Break reason) {
    if (stage_ != Stage::cancelled) stage_ = Stage::failed;
    queue_->async([weak = weak_from_this(), reason = std::move(reason)] {
        if (const auto self = weak.lock()) self->breakOff(reason);
    });
}

void Client::socketReady(std::uint32_t readiness) {
    std::shared_ptr<Link> link;
    {
        const std::lock_guard lock{lock_};
        link = link_;
        if (!link) return;
        const bool writable = (readiness & queue::Watch::writable) != 0;
        if (writable && stage_ == Stage::open) flush();
    }
    if ((readiness & queue::Watch::hangup) != 0) link->hangup = true;
    if ((readiness & (queue::Watch::readable | queue::Watch::hangup)) == 0) return;
    if (const auto reason = read(*link)) breakOff(*reason);
}

std::optional<Break> Client::read(Link& link) {
    std::array<std::byte, kChunk> chunk;
    for (int reads = 0; reads < kReadsInATurn; ++reads) {
        const std::span<std::byte> room = link.reader.room();
        Received received = receive(link.socket.get(), room, chunk, Accepting::descriptors);
        if (received.state == Received::State::nothingYet) return {};
        if (received.state == Received::State::ended) return interrupted("the service closed it");
        if (received.lostDescriptors) return interrupted("too many descriptors came");

        // A descriptor ends a read before its room is full, with more to come.
        const bool more = received.filled || !received.descriptors.empty() || link.hangup;
        std::move(received.descriptors.begin(), received.descriptors.end(), std::back_inserter(link.descriptors));
        const std::size_t inRoom = std::min(room.size(), received.count);
        link.reader.received(inRoom, Bytes{chunk}.first(received.count - inRoom));
        if (auto reason = deliverFrames(link)) return reason;
        if (!more) return {};
    }
    if (link.watch) link.watch->again(queue::Watch::readable);
    return {};
}

std::optional<Break> Client::deliverFrames(Link& link) {
    while (auto frame = link.reader.next()) {
        const bool isHello = frame->header.kind == wire::FrameKind::hello;
        auto reason = isHello ? greet(link, *frame) : deliverReply(link, *std::move(frame));
        if (reason) return reason;
    }
    if (!link.reader.fault().empty()) return interrupted(link.reader.fault());
    link.reader.keep();
    return {};
}

std::optional<Break> Client::greet(Link& link, const Frame& hello) {
    if (hello.body.size() < wire::kHelloSize) return unreachable("it sent a short hello");
    const auto version = encoding::load<std::uint32_t>(hello.body.data());
    if (version != wire::kProtocolVersion)
        return unreachable(text::format("it speaks version {} of the protocol", version));

    const std::lock_guard lock{lock_};
    if (stage_ == Stage::open) return interrupted("a second hello");
    if (stage_ != Stage::connecting) return {};  // about to end
    const Bytes nonce = hello.body.subspan(sizeof version, sizeof(wire::Nonce));
    if (OutgoingFrame{wire::FrameKind::echo, 0, nonce}.send(link.socket.get()) != 0)
        return interrupted("the hello cannot be answered");
    stage_ = Stage::open;
    flush();
    return {};
}

std::optional<Break> Client::deliverReply(Link& link, Frame&& frame) {
    if (const auto error = check(frame.body, kReplyLimits)) return interrupted(error->localizedDescription());
    Object object = frame.whole ? Object{std::move(frame.whole)} : Object::copyOf(frame.body);
    if (!object.isDictionary()) return interrupted("a reply that is no dictionary");
    if ((frame.header.flags & wire::kWithDescriptor) != 0) {
        if (link.descriptors.empty()) return interrupted("a descriptor did not come");
        object.setDescriptor(std::make_shared<const file::UniqueFd>(std::move(link.descriptors.front())));
        link.descriptors.pop_front();
    }
    ReplyHandler reply;
    {
        const std::lock_guard lock{lock_};
        auto answered = waiting_.extract(frame.header.replyId);
        if (!answered) return interrupted("a reply to no request");
        reply = std::exchange(answered.mapped(), {});
        spare_ = std::move(answered);
    }
    if (reply) reply(object);
    return {};
}

void Client::breakOff(const Break& reason) {
    std::shared_ptr<Link> link;
    Waiting waiting;
    bool isCancelled = false;
    {
        const std::lock_guard lock{lock_};
        isCancelled = stage_ == Stage::cancelled;
        if (!isCancelled) stage_ = Stage::idle;
        link = std::move(link_);
        waiting = std::exchange(waiting_, {});
        output_.clear();
        retryTimer_.reset();
    }
    const Object error = errorObject(reason.code, reason.reason);
    for (const auto& [id, reply] : waiting) {
        if (reply) reply(error);
    }
    const EventHandler handler = isCancelled ? std::exchange(eventHandler_, {}) : eventHandler_;
    if (handler) handler(error);
}

}  // namespace

std::shared_ptr<ClientConnection> ClientConnection::create(std::string serviceName,
                                                           const std::shared_ptr<queue::SerialQueue>& queue) {
    return std::make_shared<Client>(std::move(serviceName), queue);
}

}  // namespace mox
