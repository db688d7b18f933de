#include <algorithm>
#include <cstdlib>
#include <vector>

#include "platform/mox/FrameReader.h"

namespace {

using mox::FrameReader;

constexpr std::size_t kLimit = 1 << 17;

struct Cut {
    mox::wire::Header header;
    std::vector<std::byte> body;
};

struct Outcome {
    std::vector<Cut> frames;
    std::string fault;
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
            outcome.frames.push_back({frame->header, {frame->body.begin(), frame->body.end()}});
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
    if (whole.fault != pieces.fault || whole.frames.size() != pieces.frames.size()) std::abort();
    for (std::size_t at = 0; at < whole.frames.size(); ++at) {
        const Cut& frame = whole.frames[at];
        if (frame.body != pieces.frames[at].body) std::abort();
        if (frame.body.size() + mox::wire::kLengthCounts != frame.header.length) std::abort();
    }
    return 0;
}
