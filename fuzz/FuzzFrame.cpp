#include <vector>

#include "fuzz/Fuzz.h"
#include "platform/mox/transport/FrameReader.h"

namespace {

using mox::FrameReader;

constexpr std::size_t kLimit = 1 << 17;

struct Cut {
    std::uint32_t length;
    std::vector<std::byte> body;
    bool operator==(const Cut&) const = default;
};

struct Outcome {
    std::vector<Cut> frames;
    std::string fault;
    bool operator==(const Outcome&) const = default;
};

// Hands the bytes over as reads of this size would: first what the reader has room for, then the rest.
Outcome read(mox::Bytes bytes, std::size_t readSize, FrameReader::Sender sender) {
    FrameReader reader{sender, kLimit};
    Outcome outcome;
    while (!bytes.empty()) {
        const mox::Bytes piece = bytes.first(std::min(readSize, bytes.size()));
        bytes = bytes.subspan(piece.size());
        const auto room = reader.room();
        const std::size_t inRoom = std::min(room.size(), piece.size());
        std::copy_n(piece.begin(), inRoom, room.begin());
        reader.received(inRoom, piece.subspan(inRoom));
        while (auto frame = reader.next())
            outcome.frames.push_back({frame->header.length, {frame->body.begin(), frame->body.end()}});
        reader.keep();
    }
    outcome.fault = reader.fault();
    return outcome;
}

}  // namespace

// The first byte says who sends and how large the reads are; the others are a stream. However it is cut, the same
// frames and the same fault come out.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const auto sender = (data[0] & 1) != 0 ? FrameReader::Sender::service : FrameReader::Sender::client;
    const mox::Bytes stream = std::as_bytes(std::span{data + 1, size - 1});
    const Outcome whole = read(stream, size, sender);
    const Outcome pieces = read(stream, 1 + data[0] / 2U, sender);
    fuzz::require(whole == pieces);
    for (const Cut& frame : whole.frames) fuzz::require(frame.body.size() + mox::wire::kLengthCounts == frame.length);
    return 0;
}
