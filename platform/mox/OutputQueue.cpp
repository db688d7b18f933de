#include "platform/mox/OutputQueue.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace mox {

namespace {

constexpr std::size_t kLeastSplice = 4096;  // below, a copy costs less than a piece of its own

Bytes bytesOf(const wire::Header& header) {
    return std::as_bytes(std::span{&header, 1});
}

}  // namespace

OutgoingFrame::OutgoingFrame(wire::FrameKind kind, std::uint64_t replyId, Bytes body)
    : size_{wire::kHeaderSize + body.size()} {
    const wire::Header header{static_cast<std::uint32_t>(size_ - sizeof(header.length)), kind, wire::kNoFlags, 0,
                              replyId};
    own_.reserve(size_);
    own_.insert(own_.end(), bytesOf(header).begin(), bytesOf(header).end());
    own_.insert(own_.end(), body.begin(), body.end());
}

OutgoingFrame::OutgoingFrame(wire::FrameKind kind, std::uint64_t replyId, const Dictionary& dictionary,
                             std::shared_ptr<const file::UniqueFd> descriptor)
    : descriptor_{std::move(descriptor)} {
    wire::Header header{0, kind, descriptor_ ? wire::kWithDescriptor : wire::kNoFlags, 0, replyId};
    std::size_t spliced = 0;
    Encoder encoder;
    encoder.reserve(256);
    encoder.splice(bytesOf(header));
    Encoder::Container container = encoder.beginDictionary();
    for (const auto& [key, content] : dictionary.entries()) {
        encoder.key(container, key);
        if (const auto* value = std::get_if<value::Value>(&content)) {
            encoder.value(*value);
            continue;
        }
        const Encoded& encoded = std::get<Encoded>(content);
        if (encoded->size() < kLeastSplice) {
            encoder.splice(*encoded);
        } else {
            splices_.push_back({encoder.size(), encoded});
            spliced += encoded->size();
        }
    }
    encoder.end(container, spliced);
    own_ = encoder.take();
    size_ = own_.size() + spliced;
    header.length = static_cast<std::uint32_t>(size_ - sizeof(header.length));
    std::memcpy(own_.data(), &header.length, sizeof header.length);
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
    for (const Splice& splice : splices_) {
        add(Bytes{own_}.subspan(at, splice.at - at));
        add(*splice.bytes);
        at = splice.at;
    }
    add(Bytes{own_}.subspan(at));
    return count;
}

int OutgoingFrame::send(int socket) {
    while (left() > 0) {
        std::array<iovec, 16> pieces;
        msghdr message{};
        message.msg_iov = pieces.data();
        message.msg_iovlen = gather(pieces);

        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
        if (descriptor_ && sent_ == 0) {
            message.msg_control = control.data();
            message.msg_controllen = control.size();
            cmsghdr* const rights = CMSG_FIRSTHDR(&message);
            rights->cmsg_level = SOL_SOCKET;
            rights->cmsg_type = SCM_RIGHTS;
            rights->cmsg_len = CMSG_LEN(sizeof(int));
            const int fd = descriptor_->get();
            std::memcpy(CMSG_DATA(rights), &fd, sizeof fd);
        }
        const ssize_t count = ::sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno;
        sent_ += static_cast<std::size_t>(count);
    }
    return 0;
}

OutputQueue::State OutputQueue::send(int socket, OutgoingFrame frame) {
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
        const int error = frame.send(socket);
        bytes_ -= before - frame.left();
        if (error != 0) return error == EAGAIN ? State::blocked : State::broken;
        if (frame.hasDescriptor()) --descriptors_;
        frames_.pop_front();
    }
    return State::drained;
}

void OutputQueue::append(OutgoingFrame frame) {
    endPosition_ += frame.size();
    keep(std::move(frame));
}

void OutputQueue::keep(OutgoingFrame frame) {
    bytes_ += frame.left();
    if (frame.hasDescriptor()) ++descriptors_;
    frames_.push_back(std::move(frame));
}

void OutputQueue::clear() {
    frames_.clear();
    bytes_ = 0;
    descriptors_ = 0;
}

}  // namespace mox
