#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "platform/file/UniqueFd.h"
#include "platform/mox/Charges.h"
#include "platform/mox/Dictionary.h"
#include "platform/mox/Encoder.h"
#include "platform/mox/Wire.h"

namespace mox {

// A frame on its way out: its own bytes, and large encoded values that are shared with whoever made them and lie
// between them. A descriptor, when there is one, leaves with the frame's first byte; where the kernel passes no more of
// them (too many are on their way to peers that do not take them), the frame leaves without it, and says so.
class OutgoingFrame {
public:
    OutgoingFrame(wire::FrameKind kind, std::uint64_t replyId, Bytes body);

    // Reads the dictionary where it lies until own() is called, which copies it: most frames are gone before that.
    OutgoingFrame(wire::FrameKind kind, std::uint64_t replyId, const Dictionary& dictionary);

    // The same, but own() takes the bytes away from the dictionary, which must live as long. What they are charged to
    // comes with them.
    OutgoingFrame(wire::FrameKind kind, std::uint64_t replyId, Dictionary* dictionary,
                  std::shared_ptr<const file::UniqueFd> descriptor, std::optional<Charge>&& charge);
    OutgoingFrame(OutgoingFrame&&) = default;  // no copies: each refers to itself
    void own();

    std::size_t size() const { return size_; }
    std::size_t left() const { return size_ - sent_; }
    bool hasDescriptor() const { return descriptor_ != nullptr; }
    bool isCharged() const { return charge_.has_value(); }

    // Sends what the socket takes without waiting; answers 0 or an errno, EAGAIN when something is left.
    int send(int socket);

private:
    std::size_t gather(std::span<iovec> pieces) const;
    ssize_t sendSome(int socket) const;
    void refer(wire::Header header, const Dictionary& dictionary);

    std::optional<Charge> charge_;  // gone after what it is for
    Dictionary* lender_ = nullptr;  // who gives the bytes away
    std::vector<std::byte> kept_;   // empty while the bytes lie with the dictionary
    std::span<std::byte> own_;
    std::span<const Dictionary::Splice> splices_;
    std::vector<Dictionary::Splice> keptSplices_;
    std::shared_ptr<const file::UniqueFd> descriptor_;
    std::size_t size_ = 0;
    std::size_t sent_ = 0;
};

// The frames that a socket has not taken yet, in order. Not guarded: its owner's lock is.
class OutputQueue {
public:
    enum class State { drained, blocked, broken };

    // Sends at once what can be when nothing waits before it, and keeps the rest.
    State send(int socket, OutgoingFrame&& frame);
    State flush(int socket);
    void append(OutgoingFrame&& frame);  // to be sent by the next flush()
    void clear();

    bool empty() const { return frames_.empty(); }
    std::size_t size() const { return bytes_; }  // of what waits

    // What waits uncharged, in bytes. A descriptor that waits is one of the daemon's own, scarcer than memory: it
    // weighs as much as kDescriptorWeight of them, so that the bound on bytes bounds descriptors too.
    std::size_t burden() const { return uncharged_ + descriptors_ * kDescriptorWeight; }
    static constexpr std::size_t kDescriptorWeight = std::size_t{64} << 10;
    std::size_t descriptors() const { return descriptors_; }

    // Positions in the stream of all bytes ever queued, by which one tells whether what waited at some time has gone.
    std::uint64_t endPosition() const { return endPosition_; }
    std::uint64_t sentPosition() const { return endPosition_ - bytes_; }

private:
    void keep(OutgoingFrame&& frame);

    std::deque<OutgoingFrame> frames_;
    std::size_t bytes_ = 0;
    std::size_t uncharged_ = 0;    // of them
    std::size_t descriptors_ = 0;  // uncharged, too
    std::uint64_t endPosition_ = 0;
};

}  // namespace mox
