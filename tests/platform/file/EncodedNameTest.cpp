#include "platform/file/File.h"
#include "tests/support/Words.h"

namespace file {
namespace {

TEST(EncodedName, LeavesPlainTextAndEscapesWhatAFileNameMustNotHold) {
    const struct {
        std::string text, name;
    } rows[] = {
        {"org.example.Plug-In_1", "org.example.Plug-In_1"},
        {"", "%empty"},
        {"..", "%2E%2E"},
        {"../etc", "%2E%2E%2Fetc"},
        {"a..b", "a..b"},
        {"a@1%", "a%401%25"},
        {"a\0\n\x7F"s, "a%00%0A%7F"},
        {"\xC3\xA9\xE2\x82\xAC", "\xC3\xA9\xE2\x82\xAC"},
        {"\xC3\xA9\xC3", "\xC3\xA9%C3"},
        {"\xC0\xAF\xED\xA0\x80", "%C0%AF%ED%A0%80"},
        {std::string(200, 'x'), std::string(200, 'x')},
    };
    for (const auto& row : rows) EXPECT_EQ(encodedName(row.text), row.name);
}

TEST(EncodedName, LongTextsStayShortAndDifferent) {
    const std::string stem(199, 'x');
    const std::string a = encodedName(stem + "ab"), b = encodedName(stem + "ac");
    EXPECT_NE(a, b);
    EXPECT_EQ(a.size(), 200U);
    EXPECT_NE(encodedName(a), a) << "no text gives the name of a longer one";
    // Neither an escape nor a character is cut in two.
    for (const std::string unit : {"/", "\xF0\x9F\x8D\x90"}) {
        std::string text = "y";
        while (text.size() < 300) text += unit;
        const std::string name = encodedName(text);
        EXPECT_LE(name.size(), 200U);
        EXPECT_EQ((name.find("%~") - 1) % (unit == "/" ? 3 : 4), 0U) << name;
    }
}

}  // namespace
}  // namespace file
