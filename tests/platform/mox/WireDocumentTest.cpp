// The worked example of doc/wire.md is what this code writes and reads: whoever writes a client from that page relies
// on it.
#include <cstring>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "platform/mox/Dictionary.h"
#include "platform/mox/Wire.h"
#include "tests/support/Hex.h"

namespace mox {
namespace {

using value::Array;
using value::Dictionary;

std::vector<std::byte> block(const std::string& name) {
    std::ifstream file{VTD_SOURCE_DIR "/doc/wire.md"};
    std::stringstream page;
    page << file.rdbuf();
    const std::string text = page.str();
    const std::string opening = "```hex " + name + "\n";
    const std::size_t start = text.find(opening);
    if (start == std::string::npos) return {};
    const std::size_t contents = start + opening.size();
    return support::fromHex(std::string_view{text}.substr(contents, text.find("```", contents) - contents));
}

TEST(WireDocument, TheHandshakeIsAsWritten) {
    std::vector<std::byte> body(wire::kHelloSize);
    std::memcpy(body.data(), &wire::kProtocolVersion, sizeof wire::kProtocolVersion);
    for (std::size_t i = 0; i < 16; ++i) body[4 + i] = static_cast<std::byte>(0x10 + i);
    EXPECT_EQ(block("hello"), wire::frame(wire::FrameKind::hello, 0, body));
    EXPECT_EQ(block("echo"), wire::frame(wire::FrameKind::echo, 0, Bytes{body}.subspan(4)));
}

TEST(WireDocument, TheMessagesAreAsWritten) {
    const Object request{
        Dictionary{{"request", "match"}, {"version", 3U}, {"rules", Dictionary{{"KXExtensionPointName", "a.b"}}}}};
    EXPECT_EQ(block("request"), wire::frame(wire::FrameKind::request, 1, request.view().encoded()));

    Encoder matches;
    matches.beginMessage();
    matches.value(Array{Dictionary{{"identifier", "x.y"}, {"systemResident", true}}});
    mox::Dictionary reply;
    reply.setEncoded("matches", std::make_shared<const std::vector<std::byte>>(matches.take()));
    EXPECT_EQ(block("reply"), wire::frame(wire::FrameKind::reply, 1, reply.toObject().view().encoded()));

    const Object refusal{Dictionary{{"errorcode", 7U}, {"error", "unsupported protocol version 4 (current 3)"}}};
    EXPECT_EQ(block("refusal"), wire::frame(wire::FrameKind::reply, 2, refusal.view().encoded()));
}

}  // namespace
}  // namespace mox
