#include "platform/mox/transport/AcceptedConnection.h"

#include <sys/random.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "platform/logging/Invariant.h"
#include "platform/logging/Log.h"
#include "platform/memory/GiveBack.h"
#include "platform/mox/PeerProgram.h"
#include "platform/mox/transport/Receive.h"
#include "platform/text/Format.h"

// How it works. The stages follow each other and none comes twice: the hello goes out and the peer's echo proves that
// it reads what it is sent (greeting); its program is looked at, elsewhere, since the disk may take its time
// (identifying); the listener's handler has the connection (delivered) and resumes it (open). Until it is open nothing
// more is read: what a stranger sends waits in the kernel's buffers, at the stranger's expense.
//
// Three owners share what is below, and each member says whose it is. The queue reads, and ends the connection. Whoever
// answers sends, on its own thread, under outputLock_. The account (Charges.h) pauses reading and ends the connection
// when it is asked to, from any thread, and therefore only through later() or the lock. Closing the descriptor happens
// in one place, end(), on the queue and under the lock, so that no number is used that the kernel has given to somebody
// else; everybody else who wants the connection gone shuts the socket down and lets the queue find out.
//
// What the peer makes us keep is charged in three parts that change with the bytes themselves: partialCharge_ for a
// frame that is half there, a Ticket for each request until its last user lets go of it, outputCharge_ for replies that
// are not read. A pause stops only reading: replies go out, which is what ends the pause.
namespace mox {

namespace {

constexpr std::size_t kChunk = std::size_t{32} << 10;
constexpr std::size_t kMostHeldBack = 4096;           // bytes of replies that wait for the end of a batch, uncharged
constexpr int kReadsInATurn = 16;                     // then others have theirs
constexpr std::size_t kLarge = std::size_t{1} << 20;  // what is to go back to the system

wire::Nonce freshNonce() {
    wire::Nonce nonce;
    // So few bytes always come whole; the nonce tells who has read it, so that a failure may leave it guessable but
    // must not go unseen.
    if (::getrandom(nonce.data(), nonce.size(), 0) != static_cast<ssize_t>(nonce.size()))
        logging::internalInconsistency("random bytes for a nonce", __FILE__);
    return nonce;
}

OutgoingFrame helloFrame(const wire::Nonce& nonce) {
    std::array<std::byte, wire::kHelloSize> body;
    std::memcpy(body.data(), &wire::kProtocolVersion, sizeof wire::kProtocolVersion);
    std::memcpy(body.data() + sizeof wire::kProtocolVersion, nonce.data(), nonce.size());
    return OutgoingFrame{wire::FrameKind::hello, 0, body};
}

Object errorObject(ErrorCode code, std::string message) {
    return Object{value::Value{value::Error{"mox", static_cast<std::int64_t>(code), std::move(message)}}};
}

}  // namespace

// NOLINTNEXTLINE(*-member-init): of the small bytes only those are read that are written here
Request::Ticket::Ticket(const std::shared_ptr<Account>& account, Frame&& frame)
    : replyId{frame.header.replyId},
      charge{account, {.backlog = frame.body.size(), .requests = 1}},
      large{std::move(frame.whole)} {
    if (large) return;
    std::byte* at = small.data();
    if (frame.body.size() > small.size()) {
        auto copy = std::make_shared_for_overwrite<std::byte[]>(frame.body.size());
        at = copy.get();
        large = {std::move(copy), at};
    }
    std::copy(frame.body.begin(), frame.body.end(), at);
}

bool Reply::charge(const Holdings& more) {
    if (!charge_) charge_.emplace(ticket()->charge.account(), Holdings{});
    return charge_->reserve(more);
}

bool Reply::reserve(std::size_t bytes) {
    needed_ += bytes;
    if (needed_ <= reserved_ || ticket() == nullptr) return true;
    const std::size_t more = std::max(needed_ - reserved_, kStep);
    if (!charge({.backlog = more})) return false;
    reserved_ += more;
    return true;
}

Room Reply::reserveDescriptor() {
    if (ticket() == nullptr) return Room::now;
    const std::shared_ptr<Account>& account = ticket()->charge.account();
    const Room room = account->ledger()->makeRoom(1, account.get());
    if (room != Room::now) return room;
    return charge({.backlog = OutputQueue::kDescriptorWeight, .descriptors = 1}) ? Room::now : Room::no;
}

AcceptedConnection::AcceptedConnection(file::UniqueFd socket, PeerIdentity peer, std::shared_ptr<Account> account,
                                       const Bounds& bounds, std::weak_ptr<ConnectionKeeper> keeper)
    : pid_{peer.pid},
      bounds_{bounds},
      account_{std::move(account)},
      keeper_{std::move(keeper)},
      queue_{std::make_shared<queue::SerialQueue>(text::format("mox.peer.{}", pid_))},
      peer_{std::make_shared<PeerIdentity>(std::move(peer))},
      identity_{peer_},
      reader_{FrameReader::Sender::client, kRequestLimits.bytes},
      partialCharge_{account_, {}},
      socket_{std::move(socket)},
      outputCharge_{account_, {}} {}

template <typename Member>
void AcceptedConnection::later(Member member) {
    queue_->async([weak = weak_from_this(), member] {
        if (const auto self = weak.lock()) std::invoke(member, *self);
    });
}

void AcceptedConnection::start() {
    account_->setHolder(weak_from_this());
    later(&AcceptedConnection::begin);
}

void AcceptedConnection::begin() {
    if (stage_ == Stage::ended) return;
    const auto weak = weak_from_this();
    socketWatch_ = queue::watch(socket_.get(), queue_, [weak](std::uint32_t readiness) {
        if (const auto self = weak.lock()) self->socketReady(readiness);
    });
    processWatch_ = queue::watch(peer_->pidfd.get(), queue_, [weak](std::uint32_t) {
        const auto self = weak.lock();
        if (!self) return;
        self->hangup_ = true;  // what it had sent before is delivered before its end is
        self->read();
        self->end();
    });
    if (!socketWatch_ || !processWatch_) return breakOff("it cannot be watched");
    handshakeTimer_ = queue::after(bounds_.handshakeDeadline, queue_, [weak] {
        const auto self = weak.lock();
        if (!self) return;
        const bool isGreeting = self->stage_ == Stage::greeting;
        self->breakOff(isGreeting ? "it did not answer the hello in time" : "its program cannot be read in time");
    });
    nonce_ = freshNonce();
    const std::lock_guard lock{outputLock_};
    afterOutput(output_.send(socket_.get(), helloFrame(nonce_)));
}

// Strong, as in cancel(): who was promised a last event gets it, even when nobody else keeps the connection.
void AcceptedConnection::resume() {
    queue_->async([self = shared_from_this()] {
        if (std::exchange(self->resumed_, true)) return;
        if (self->stage_ == Stage::ended) return self->deliverInvalid();
        self->stage_ = Stage::open;
        self->readOn();
    });
}

void AcceptedConnection::cancel() {
    queue_->async([self = shared_from_this()] { self->end(); });
}

void AcceptedConnection::readAgain() {
    later(&AcceptedConnection::readOn);
}

void AcceptedConnection::endForExcess() {
    later([](AcceptedConnection& self) { self.breakOff("it holds most where all together hold too much"); });
}

void AcceptedConnection::letGo() {
    const std::lock_guard lock{outputLock_};
    dropOutput();
    if (socket_) ::shutdown(socket_.get(), SHUT_RDWR);  // what was cut must not go on with another frame
}

std::string AcceptedConnection::description() const {
    return text::format("<mox connection {} pid={}>", static_cast<const void*>(this), pid_);
}

void AcceptedConnection::socketReady(std::uint32_t readiness) {
    if ((readiness & queue::Watch::hangup) != 0) hangup_ = true;
    if ((readiness & queue::Watch::writable) != 0) {
        const std::lock_guard lock{outputLock_};
        if (!output_.empty()) afterOutput(output_.flush(socket_.get()));
    }
    if ((readiness & (queue::Watch::readable | queue::Watch::hangup)) != 0) read();
}

void AcceptedConnection::read() {
    std::array<std::byte, kChunk> chunk;
    for (int reads = 0; reads < kReadsInATurn; ++reads) {
        if ((paused_ && !hangup_) || (stage_ != Stage::greeting && stage_ != Stage::open)) return;
        const std::span<std::byte> room = reader_.room();
        const Received received = receive(socket_.get(), room, chunk, Accepting::credentials);
        if (received.state == Received::State::nothingYet) return;
        if (received.state == Received::State::ended) return end();
        if (received.sender != pid_) return breakOff("another process sends on it");
        if (received.lostDescriptors) return breakOff("it sent a descriptor");

        const std::size_t inRoom = std::min(room.size(), received.count);
        reader_.received(inRoom, Bytes{chunk}.first(received.count - inRoom));
        deliverFrames();
        if (!received.filled && !hangup_) return;
    }
    if (socketWatch_) socketWatch_->again(queue::Watch::readable);
}

// Goes on where a pause, or the wait for resume(), left off: with what has been read already.
void AcceptedConnection::readOn() {
    paused_ = !account_->mayRead();
    deliverFrames();
    read();
}

void AcceptedConnection::deliverFrames() {
    INVARIANT(queue_->isCurrent());
    // Once the peer has closed, what is left is bounded by the socket, and its end must not wait for a pause's.
    while ((!paused_ || hangup_) && (stage_ == Stage::greeting || stage_ == Stage::open)) {
        auto frame = reader_.next();
        if (!frame) break;
        if (!handle(*std::move(frame))) return;
    }
    if (stage_ == Stage::ended) return;
    if (!reader_.fault().empty()) return breakOff(reader_.fault());
    reader_.keep();
    partialCharge_.change({.partial = reader_.held()});
}

// Whether the connection goes on.
bool AcceptedConnection::handle(Frame&& frame) {
    const bool isEcho = frame.header.kind == wire::FrameKind::echo;
    if (isEcho != (stage_ == Stage::greeting)) {
        breakOff(isEcho ? "a second echo" : "a frame before the echo");
        return false;
    }
    if (isEcho) return authenticate(frame);
    if (frame.header.kind != wire::FrameKind::terminationImminent) return deliverMessage(std::move(frame));
    if (!frame.body.empty()) {
        breakOff("a notice with a body");
        return false;
    }
    handler_(Event{errorObject(ErrorCode::terminationImminent, text::format("process {} is about to end", pid_))});
    return true;
}

bool AcceptedConnection::authenticate(const Frame& echo) {
    if (!std::equal(echo.body.begin(), echo.body.end(), nonce_.begin(), nonce_.end())) {
        breakOff("a wrong echo");
        return false;
    }
    INVARIANT(stage_ == Stage::greeting);
    stage_ = Stage::identifying;
    // Whoever waits for it alone must not keep the connection: the peer decides how long that is.
    const auto known = PeerPrograms::shared().find(*peer_, account_->ledger(),
                                                   [weak = weak_from_this(), queue = queue_](auto program) {
                                                       queue->async([weak, program] {
                                                           if (const auto self = weak.lock()) self->identified(program);
                                                       });
                                                   });
    return known == nullptr || identified(known);
}

bool AcceptedConnection::identified(const std::shared_ptr<const PeerProgram>& program) {
    if (stage_ != Stage::identifying) return false;
    const char* const fault = program == nullptr     ? "its program could not be looked at"
                              : !isUnchanged(*peer_) ? "the process is no longer what connected"
                                                     : nullptr;
    if (fault != nullptr) {
        breakOff(fault);
        return false;
    }
    INVARIANT(!resumed_ && !peer_->program);  // nobody reads the identity before it is delivered
    peer_->program = program;
    account_->setGreeted();
    handshakeTimer_.reset();
    stage_ = Stage::delivered;
    if (const auto keeper = keeper_.lock()) keeper->authenticated(shared_from_this());
    return true;
}

bool AcceptedConnection::deliverMessage(Frame&& frame) {
    if (const auto error = check(frame.body, kRequestLimits)) {
        breakOff(error->localizedDescription());
        return false;
    }
    auto kept = std::make_shared<Request::Ticket>(account_, std::move(frame));
    Request::Ticket* const ticket = kept.get();
    const bool mayBeTooMuch = ticket->charge.cameBeyond();
    Object message{std::shared_ptr<const std::byte>{std::move(kept), ticket->message()}};
    if (message.isDictionary()) {
        handler_(Event{std::in_place_type<Request>, std::move(message), ticket});
    } else {
        handler_(Event{std::move(message)});
    }
    if (mayBeTooMuch) paused_ = !account_->mayRead();
    return true;
}

void AcceptedConnection::send(Reply& reply) {
    Request::Ticket& ticket = *reply.ticket();
    if (ticket.replyId == 0 || ticket.charge.account() != account_ || ticket.answered.exchange(true)) return;
    const std::size_t size = reply.framed({}).size;
    if (size - wire::kHeaderSize > kReplyLimits.bytes)
        return later([](AcceptedConnection& self) { self.breakOff("a reply to it is above the limit"); });
    if (!reply.reserveRest(size)) {
        return later(
            [](AcceptedConnection& self) { self.breakOff("replies to it are more than it may have waiting"); });
    }
    if (size >= kLarge) memory::giveBackSoon();
    OutgoingFrame frame{wire::FrameKind::reply, ticket.replyId, &reply, reply.descriptor(), reply.takeCharge()};

    const std::lock_guard lock{outputLock_};
    if (!socket_) return;
    const bool mayWait = output_.burden() + size <= kMostHeldBack && !reply.descriptor();
    if (!mayWait) sendHeldBack();
    if (!heldBack_ && output_.empty() && mayWait) heldBack_ = queue::defer(shared_from_this());
    if (heldBack_) {
        output_.append(std::move(frame));
    } else {
        afterOutput(output_.send(socket_.get(), std::move(frame)));
    }
}

void AcceptedConnection::runDeferred() noexcept {
    const std::lock_guard lock{outputLock_};
    sendHeldBack();
}

void AcceptedConnection::sendHeldBack() {
    if (std::exchange(heldBack_, false)) afterOutput(output_.flush(socket_.get()));
}

void AcceptedConnection::afterOutput(OutputQueue::State state) {
    INVARIANT(socket_);  // given up under the same lock, behind the last output
    if (state == OutputQueue::State::broken) {
        dropOutput();
        ::shutdown(socket_.get(), SHUT_RDWR);  // a later reply must not pass for the rest of a frame cut here
        later(&AcceptedConnection::end);
    }
    outputCharge_.change({.backlog = output_.burden(), .descriptors = output_.descriptors()});
    if (output_.empty()) {
        drainTimer_.reset();
        return;
    }
    if (output_.size() >= kLarge) memory::giveBackSoon();
    socketWatch_->awaitWritable();
    if (!drainTimer_) {
        drainPosition_ = output_.endPosition();
        drainTimer_ = queue::after(bounds_.drainDeadline, queue_, [weak = weak_from_this()] {
            if (const auto self = weak.lock()) self->checkDrained();
        });
    }
}

void AcceptedConnection::dropOutput() {
    if (output_.size() >= kLarge) memory::giveBackSoon();
    output_.clear();
}

void AcceptedConnection::checkDrained() {
    {
        const std::lock_guard lock{outputLock_};
        if (!drainTimer_) return;
        drainTimer_.reset();
        if (output_.sentPosition() >= drainPosition_) return afterOutput(OutputQueue::State::blocked);
    }
    breakOff("it does not take its replies");
}

void AcceptedConnection::breakOff(std::string_view why) {
    if (stage_ == Stage::ended) return;
    if (const auto keeper = keeper_.lock()) keeper->complain(pid_, "ended", why);
    end();
}

void AcceptedConnection::end() {
    INVARIANT(queue_->isCurrent());
    if (stage_ == Stage::ended) return;
    stage_ = Stage::ended;
    const auto self = shared_from_this();  // the keeper may have the last other reference
    processWatch_.reset();
    handshakeTimer_.reset();
    {
        const std::lock_guard lock{outputLock_};
        sendHeldBack();
        drainTimer_.reset();
        socketWatch_.reset();
        dropOutput();
        socket_.reset();
    }
    reader_.clear();
    account_->close();
    if (const auto keeper = keeper_.lock()) keeper->ended(*this);
    if (resumed_) deliverInvalid();
}

void AcceptedConnection::deliverInvalid() {
    INVARIANT(queue_->isCurrent() && stage_ == Stage::ended);
    const EventHandler handler = std::exchange(handler_, {});
    if (handler)
        handler(Event{errorObject(ErrorCode::connectionInvalid, text::format("connection of process {} ended", pid_))});
}

}  // namespace mox
