// The worked example of doc/wire.md is what this code writes and reads: whoever writes a client from that page relies
// on it.
#include <fstream>
#include <sstream>

#include "platform/mox/Dictionary.h"
#include "platform/mox/Wire.h"
#include "tests/support/Hex.h"
#include "tests/support/Words.h"

namespace mox {
namespace {

std::vector<std::byte> block(const std::string& name) {
    std::stringstream page;
    page << std::ifstream{VTD_SOURCE_DIR "/doc/wire.md"}.rdbuf();
    const std::string text = page.str(), opening = "```hex " + name + "\n";
    const std::size_t start = text.find(opening) + opening.size();
    return support::fromHex(text.substr(start, text.find("```", start) - start));
}

TEST(WireDocument, TheHandshakeIsAsWritten) {
    const auto body = support::fromHex("01000000 10111213 14151617 18191a1b 1c1d1e1f");
    EXPECT_EQ(block("hello"), wire::frame(wire::FrameKind::hello, 0, body));
    EXPECT_EQ(block("echo"), wire::frame(wire::FrameKind::echo, 0, Bytes{body}.subspan(4)));
}

TEST(WireDocument, TheMessagesAreAsWritten) {
    const Object request{value::Dictionary{
        {"request", "match"}, {"version", 3U}, {"rules", value::Dictionary{{"KXExtensionPointName", "a.b"}}}}};
    EXPECT_EQ(block("request"), wire::frame(wire::FrameKind::request, 1, request.view().encoded()));

    Encoder matches;
    matches.beginMessage();
    matches.value(Array{value::Dictionary{{"identifier", "x.y"}, {"systemResident", true}}});
    Dictionary reply;
    reply.setEncoded("matches", std::make_shared<const std::vector<std::byte>>(matches.take()));
    EXPECT_EQ(block("reply"), wire::frame(wire::FrameKind::reply, 1, reply.toObject().view().encoded()));

    const Object refusal{value::Dictionary{{"errorcode", 7U}, {"error", "unsupported protocol version 4 (current 3)"}}};
    EXPECT_EQ(block("refusal"), wire::frame(wire::FrameKind::reply, 2, refusal.view().encoded()));
}

}  // namespace
}  // namespace mox
