#include "platform/digest/Sha1.h"
#include "platform/text/Format.h"
#include "tests/support/Words.h"

namespace {

TEST(Sha1, GivesThePublishedDigests) {
    const struct {
        std::string text, digest;
    } rows[] = {{"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
                {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
                {std::string(1'000'000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"}};
    for (const auto& row : rows) {
        std::string hex;
        for (const std::byte byte : digest::sha1(row.text)) hex += text::format("{:02x}", std::to_integer<int>(byte));
        EXPECT_EQ(hex, row.digest) << row.text.substr(0, 10);
    }
}

}  // namespace
