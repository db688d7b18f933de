#include "platform/digest/Sha1.h"
#include "tests/support/Hex.h"
#include "tests/support/Words.h"

namespace {

TEST(Sha1, GivesThePublishedDigests) {
    const std::pair<std::string, const char*> rows[] = {
        {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {std::string(1'000'000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"}};
    for (const auto& [text, digest] : rows)
        EXPECT_THAT(digest::sha1(text), testing::ElementsAreArray(support::fromHex(digest)));
}

}  // namespace
