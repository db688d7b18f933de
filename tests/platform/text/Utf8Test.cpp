#include "platform/text/Utf8.h"
#include "tests/support/Words.h"

namespace {

TEST(Utf8, MalformedBytesAreToldAndReplaced) {
    const std::string r = "\uFFFD";
    const std::pair<std::string, std::string> rows[] = {
        {"longer than a word", "longer than a word"},
        {"a\u00e9\u20ac\U0001F600\U0010FFFF", "a\u00e9\u20ac\U0001F600\U0010FFFF"},
        {"/caf\xE9/x", "/caf" + r + "/x"},
        {"cut ab\xE2\x82", "cut ab" + r + r},
        {"overlong \xC0\xAF \xE0\x80\xAF", "overlong " + r + r + " " + r + r + r},
        {"surrogate \xED\xA0\x80", "surrogate " + r + r + r},
        {"too high \xF4\x90\x80\x80", "too high " + r + r + r + r},
        {"12345678\x80", "12345678" + r},  // in the second word
    };
    for (const auto& [bytes, text] : rows) {
        EXPECT_EQ(text::wellFormed(bytes), text);
        EXPECT_EQ(text::isUtf8(bytes), bytes == text) << text;
    }
}

}  // namespace
