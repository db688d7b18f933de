#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/mox/View.h"
#include "platform/mox/Wire.h"

namespace mox {

struct Frame {
    wire::Header header;
    Bytes body;                              // lies in `whole`, or, without that, in what was received: until keep()
    std::shared_ptr<const std::byte> whole;  // the body of a frame that came in pieces
};

// Cuts a stream of received bytes into frames. A frame that arrived whole is not copied at all; the rest of a larger
// one is received straight into its place. Memory grows with the bytes that came, to at most
// kGrowth times as many, never from a length that was only claimed. Of a service, which could do worse, so much is
// believed that the largest of its usual replies need no growing, and no copies that come of it; memory that nothing
// came for is not touched.
//
// Belongs to one queue. A fault is final: no frame comes after it.
class FrameReader {
public:
    enum class Sender { client, service };

    FrameReader(Sender sender, std::size_t bodyLimit) : sender_{sender}, bodyLimit_{bodyLimit} {}

    // Where the rest of a frame that came in part is to be received, before anything else; empty when none is due.
    std::span<std::byte> room();

    // What was received: so many bytes into room(), then others that are lent until keep() is called.
    void received(std::size_t inRoom, Bytes lent);

    std::optional<Frame> next();  // the next whole frame

    // Ends the loan: copies what next() has not taken. Bodies that lay in it are gone.
    void keep();

    void clear();  // forgets all that came

    const std::string& fault() const { return fault_; }  // what breaks the protocol; empty while nothing does
    std::size_t held() const { return kept_.capacity() + capacity_; }

private:
    static constexpr std::size_t kFirstRoom = std::size_t{64} << 10;
    static constexpr std::size_t kGrowth = 4;
    static constexpr std::size_t kBelieved = std::size_t{8} << 20;

    std::size_t partialSize() const { return header_.length - wire::kLengthCounts; }
    bool takeHeader();
    void grow(std::size_t capacity);

    const Sender sender_;
    const std::size_t bodyLimit_;

    Bytes input_;                        // lies in what was lent, or in kept_
    std::vector<std::byte> kept_;        // bytes that no frame has taken yet
    wire::Header header_{};              // of the last frame that began
    std::shared_ptr<std::byte[]> body_;  // of the frame under way, when inFrame_
    std::size_t capacity_ = 0;
    std::size_t filled_ = 0;  // how much of it has come
    bool inFrame_ = false;
    std::string fault_;
};

}  // namespace mox
