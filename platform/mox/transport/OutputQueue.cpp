#include "platform/mox/transport/OutputQueue.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include "platform/logging/Invariant.h"

namespace mox {

OutgoingFrame::OutgoingFrame(wire::FrameKind kind, std::uint64_t replyId, Bytes body)
    : kept_{wire::frame(kind, replyId, body)}, own_{kept_}, size_{kept_.size()} {}

OutgoingFrame::OutgoingFrame(wire::FrameKind kind, std::uint64_t replyId, const Dictionary& dictionary) {
    refer({0, kind, wire::kNoFlags, 0, replyId}, dictionary);
}

OutgoingFrame::OutgoingFrame(wire::FrameKind kind, std::uint64_t replyId, Dictionary* dictionary,
                             std::shared_ptr<const file::UniqueFd> descriptor, std::optional<Charge>&& charge)
    : charge_{std::move(charge)}, lender_{dictionary}, descriptor_{std::move(descriptor)} {
    refer({0, kind, descriptor_ ? wire::kWithDescriptor : wire::kNoFlags, 0, replyId}, *dictionary);
}

void OutgoingFrame::refer(wire::Header header, const Dictionary& dictionary) {
    const auto framed = dictionary.framed(header);
    own_ = framed.own;
    splices_ = framed.elsewhere;
    size_ = framed.size;
}

void OutgoingFrame::own() {
    if (!kept_.empty()) return;
    if (lender_ != nullptr) {
        auto taken = std::exchange(lender_, nullptr)->take();
        kept_ = std::move(taken.own);
        keptSplices_ = std::move(taken.elsewhere);
    } else {
        kept_ = {own_.begin(), own_.end()};
        keptSplices_ = {splices_.begin(), splices_.end()};
    }
    own_ = kept_;
    splices_ = keptSplices_;
}

// The pieces that are not sent yet, as many as there is room for.
std::size_t OutgoingFrame::gather(std::span<iovec> pieces) const {
    std::size_t count = 0;
    std::size_t skip = sent_;
    const auto add = [&](Bytes piece) {
        const std::size_t skipped = std::min(skip, piece.size());
        skip -= skipped;
        if (skipped == piece.size() || count == pieces.size()) return;
        // sendmsg only reads, but its type does not say so.
        pieces[count++] = {const_cast<std::byte*>(piece.data() + skipped), piece.size() - skipped};
    };
    std::size_t at = 0;
    for (const Dictionary::Splice& splice : splices_) {
        INVARIANT(at <= splice.at && splice.at <= own_.size());
        add(Bytes{own_}.subspan(at, splice.at - at));
        add(*splice.bytes);
        at = splice.at;
    }
    add(Bytes{own_}.subspan(at));
    return count;
}

ssize_t OutgoingFrame::sendSome(int socket) const {
    constexpr int kFlags = MSG_NOSIGNAL | MSG_DONTWAIT;
    const bool passes = descriptor_ && sent_ == 0;
    if (!passes && splices_.empty()) return ::send(socket, own_.data() + sent_, left(), kFlags);

    std::array<iovec, 16> pieces;
    msghdr message{};
    message.msg_iov = pieces.data();
    message.msg_iovlen = gather(pieces);
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    if (passes) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* const rights = CMSG_FIRSTHDR(&message);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof(int));
        const int fd = descriptor_->get();
        std::memcpy(CMSG_DATA(rights), &fd, sizeof fd);
    }
    return ::sendmsg(socket, &message, kFlags);
}

int OutgoingFrame::send(int socket) {
    while (left() > 0) {
        const ssize_t count = sendSome(socket);
        if (count >= 0) {
            sent_ += static_cast<std::size_t>(count);
            INVARIANT(sent_ <= size_);
        } else if (errno == ETOOMANYREFS && descriptor_ && sent_ == 0) {
            descriptor_.reset();
            own_[offsetof(wire::Header, flags)] = std::byte{wire::kNoFlags};
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

OutputQueue::State OutputQueue::send(int socket, OutgoingFrame&& frame) {
    if (!frames_.empty()) {
        append(std::move(frame));
        return State::blocked;
    }
    endPosition_ += frame.size();
    const int error = frame.send(socket);
    if (error == 0) return State::drained;
    if (error != EAGAIN) return State::broken;
    keep(std::move(frame));
    return State::blocked;
}

OutputQueue::State OutputQueue::flush(int socket) {
    while (!frames_.empty()) {
        OutgoingFrame& frame = frames_.front();
        const std::size_t before = frame.left();
        const bool hadDescriptor = frame.hasDescriptor();
        const int error = frame.send(socket);
        INVARIANT(before >= frame.left() && bytes_ >= before);
        bytes_ -= before - frame.left();
        if (!frame.isCharged()) {
            uncharged_ -= before - frame.left();
            if (hadDescriptor && (error == 0 || !frame.hasDescriptor())) --descriptors_;
        }
        if (error != 0) return error == EAGAIN ? State::blocked : State::broken;
        frames_.pop_front();
    }
    INVARIANT(bytes_ == 0 && uncharged_ == 0 && descriptors_ == 0);
    return State::drained;
}

void OutputQueue::append(OutgoingFrame&& frame) {
    endPosition_ += frame.size();
    keep(std::move(frame));
}

void OutputQueue::keep(OutgoingFrame&& frame) {
    INVARIANT(frame.left() > 0 && uncharged_ <= bytes_);
    frame.own();
    bytes_ += frame.left();
    if (!frame.isCharged()) {
        uncharged_ += frame.left();
        if (frame.hasDescriptor()) ++descriptors_;
    }
    frames_.push_back(std::move(frame));
}

void OutputQueue::clear() {
    frames_.clear();
    bytes_ = 0;
    uncharged_ = 0;
    descriptors_ = 0;
}

}  // namespace mox
