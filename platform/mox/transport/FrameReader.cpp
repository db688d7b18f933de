#include "platform/mox/transport/FrameReader.h"

#include <algorithm>
#include <utility>

#include "platform/logging/Invariant.h"
#include "platform/text/Format.h"

namespace mox {

namespace {

using wire::FrameKind;

// What is wrong with a header; empty when nothing is.
std::string faultOf(const wire::Header& header, FrameReader::Sender sender, std::size_t bodyLimit) {
    if (header.length < wire::kLengthCounts) return "a frame shorter than its header";
    const std::size_t body = header.length - wire::kLengthCounts;
    if (body > bodyLimit) return text::format("a frame of {} bytes, above the limit of {}", body, bodyLimit);

    const bool fromClient = sender == FrameReader::Sender::client;
    bool answered = false;
    switch (header.kind) {
        case FrameKind::hello:
            if (fromClient) return "a hello from a client";
            break;
        case FrameKind::reply:
            if (fromClient) return "a reply from a client";
            answered = true;
            break;
        case FrameKind::request: answered = true; [[fallthrough]];
        case FrameKind::echo:
        case FrameKind::message:
        case FrameKind::terminationImminent:
            if (!fromClient) return "a client's frame from a service";
            break;
        default: return text::format("unknown frame kind {}", static_cast<int>(header.kind));
    }
    if (answered != (header.replyId != 0)) return "a reply id that does not fit the kind";
    const bool mayCarry = header.kind == FrameKind::reply;
    if (header.zero != 0 || (header.flags & ~(mayCarry ? wire::kWithDescriptor : wire::kNoFlags)) != 0)
        return "unknown flags";
    return {};
}

}  // namespace

std::span<std::byte> FrameReader::room() {
    if (!inFrame_) return {};
    INVARIANT(filled_ <= capacity_ && filled_ < partialSize());
    if (filled_ == capacity_) grow(std::min(partialSize(), std::max(kFirstRoom, filled_ * kGrowth)));
    return {body_.get() + filled_, capacity_ - filled_};
}

void FrameReader::grow(std::size_t capacity) {
    auto larger = std::make_shared_for_overwrite<std::byte[]>(capacity);
    std::copy_n(body_.get(), filled_, larger.get());
    body_ = std::move(larger);
    capacity_ = capacity;
}

void FrameReader::received(std::size_t inRoom, Bytes lent) {
    INVARIANT(inRoom == 0 || (inFrame_ && inRoom <= capacity_ - filled_));
    filled_ += inRoom;
    if (kept_.empty()) {
        input_ = lent;
    } else {
        kept_.insert(kept_.end(), lent.begin(), lent.end());
        input_ = kept_;
    }
}

bool FrameReader::takeHeader() {
    if (input_.size() < wire::kHeaderSize) return false;
    header_ = encoding::load<wire::Header>(input_.data());
    fault_ = faultOf(header_, sender_, bodyLimit_);
    if (!fault_.empty()) return false;
    input_ = input_.subspan(wire::kHeaderSize);
    return true;
}

std::optional<Frame> FrameReader::next() {
    if (!inFrame_) {
        if (!fault_.empty() || !takeHeader()) return {};
        if (partialSize() <= input_.size()) {
            const Bytes body = input_.first(partialSize());
            input_ = input_.subspan(body.size());
            return Frame{header_, body, {}};
        }
        inFrame_ = true;
        filled_ = 0;
        if (sender_ == Sender::service) grow(std::min(partialSize(), kBelieved));
    }

    const Bytes piece = input_.first(std::min(partialSize() - filled_, input_.size()));
    input_ = input_.subspan(piece.size());
    if (!piece.empty()) {
        if (capacity_ - filled_ < piece.size()) grow(filled_ + piece.size());
        std::copy(piece.begin(), piece.end(), body_.get() + filled_);
        filled_ += piece.size();
    }
    if (filled_ < partialSize()) return {};
    inFrame_ = false;
    capacity_ = 0;
    const std::byte* const body = body_.get();
    return Frame{header_, {body, filled_}, {std::exchange(body_, {}), body}};
}

void FrameReader::keep() {
    if (input_.empty()) {
        if (kept_.capacity() != 0) kept_ = {};
    } else {
        kept_ = std::vector<std::byte>(input_.begin(), input_.end());
    }
    input_ = kept_;
}

void FrameReader::clear() {
    input_ = {};
    kept_ = {};
    body_ = {};
    capacity_ = 0;
    inFrame_ = false;
}

}  // namespace mox
