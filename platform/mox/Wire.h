#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "platform/mox/Encoding.h"

// The frames on a Mox socket; doc/wire.md is their documentation. Both directions are a sequence of
//
//     frame  := length:u32 kind:u8 flags:u8 zero:u16 replyId:u64 body        little-endian
//
// where `length` counts what follows it (12 + the size of the body).
//
//     kind                      from      replyId   body
//     1 hello                   service   0         version:u32 nonce:16 bytes (bytes after these are ignored)
//     2 echo                    client    0         the nonce of the hello: 16 bytes
//     3 request                 client    not 0     one encoded value
//     4 reply                   service   the request's   one encoded dictionary
//     5 message                 client    0         one encoded value; nothing answers it
//     6 termination imminent    client    0         nothing
//
// The service speaks first: one hello, after it has read who connected. The client's first frame is the echo; anything
// else in its place ends the connection, and so does a second one. After the echo, requests, messages and notices come
// in any number and order. Each request is answered at most once, in any order; the client chooses the replyId, which
// must not stand for two of its unanswered requests at a time (the service does not look).
//
// Flag 1, on replies only: one descriptor, of a regular file, comes with the frame's first bytes (SCM_RIGHTS). Clients
// never send one. Other flags and `zero` are 0. A frame that breaks a rule, a kind that is not in the table or not of
// that direction, and a body above the limit (mox::kRequestLimits, mox::kReplyLimits) end the connection.
//
// All bytes of a client are sent by the process that connected (SCM_CREDENTIALS); a child that inherits the socket
// cannot use it.
namespace mox::wire {

inline constexpr std::uint32_t kProtocolVersion = 1;

enum class FrameKind : std::uint8_t {
    hello = 1,
    echo = 2,
    request = 3,
    reply = 4,
    message = 5,
    terminationImminent = 6,
};

enum Flags : std::uint8_t { kNoFlags = 0, kWithDescriptor = 1 };

struct Header {
    std::uint32_t length;
    FrameKind kind;
    std::uint8_t flags;
    std::uint16_t zero;
    std::uint64_t replyId;
};
static_assert(sizeof(Header) == 16 && offsetof(Header, kind) == 4 && offsetof(Header, replyId) == 8);

inline constexpr std::size_t kHeaderSize = sizeof(Header);
inline constexpr std::size_t kLengthCounts = kHeaderSize - sizeof(std::uint32_t);  // of the header, in `length`

using Nonce = std::array<std::byte, 16>;

inline constexpr std::size_t kHelloSize = sizeof(std::uint32_t) + sizeof(Nonce);

// A whole frame without flags. For what is small or rare: messages are framed where they are built (Dictionary).
std::vector<std::byte> frame(FrameKind kind, std::uint64_t replyId, std::span<const std::byte> body);

}  // namespace mox::wire
