#include "platform/text/Described.h"
#include "platform/text/Utf8.h"
#include "tests/support/Words.h"

namespace {

TEST(Utf8, MalformedBytesAreToldAndReplaced) {
    const std::string r = "\uFFFD";
    const struct {
        std::string name, bytes, text;
    } rows[] = {
        {"ASCII longer than a word", "unremarkable text", "unremarkable text"},
        {"every length", "a\u00e9\u20ac\U0001F600", "a\u00e9\u20ac\U0001F600"},
        {"the last character", "\U0010FFFF", "\U0010FFFF"},
        {"Latin-1 in a path", "/caf\xE9/x", "/caf" + r + "/x"},
        {"cut short", "ab\xE2\x82", "ab" + r + r},
        {"overlong", "\xC0\xAF", r + r},
        {"overlong in three", "\xE0\x80\xAF", r + r + r},
        {"a surrogate", "\xED\xA0\x80", r + r + r},
        {"beyond the last character", "\xF4\x90\x80\x80", r + r + r + r},
        {"a lone continuation in the second word", "12345678\x80", "12345678" + r},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(text::wellFormed(row.bytes), row.text) << row.name;
        EXPECT_EQ(text::isUtf8(row.bytes), row.bytes == row.text) << row.name;
    }
}

struct Counted {
    int& made;
    std::string description() const { return "made " + std::to_string(++made); }
};

TEST(Described, ObjectsStandInFormatsByTheirDescriptions) {
    int made = 0;
    const Counted counted{made};
    const value::Dictionary dictionary{{"a", 1}};
    EXPECT_EQ(text::format("{} {} {:>3}|", counted, dictionary, value::Value{"x"}), "made 1 {a = 1}   x|");
}

}  // namespace
