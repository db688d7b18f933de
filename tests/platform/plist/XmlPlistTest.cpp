#include <cerrno>
#include <cmath>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/plist/FullXmlReader.h"
#include "platform/plist/PlainXmlReader.h"
#include "platform/plist/Plist.h"
#include "tests/support/RandomValue.h"
#include "tests/support/TemporaryDirectory.h"

namespace plist {
namespace {

using testing::HasSubstr;
using value::Array;
using value::Dictionary;
using value::Value;

std::string inPlist(std::string_view body) {
    return "<plist version=\"1.0\">" + std::string{body} + "</plist>";
}

TEST(XmlPlist, ReadsEveryKindOfValue) {
    const struct {
        std::string_view body;
        Value value;
    } rows[] = {
        {"<true/>", true},
        {"<false> \n</false>", false},
        {"<integer>-9223372036854775808</integer>", std::numeric_limits<std::int64_t>::min()},
        {"<integer> +42\n</integer>", 42},
        {"<integer>-0xfF</integer>", -255},
        {"<integer>18446744073709551615</integer>", std::numeric_limits<std::uint64_t>::max()},
        {"<real>-1.5e3</real>", -1500.0},
        {"<real>+inf</real>", std::numeric_limits<double>::infinity()},
        {"<string/>", ""},
        {"<string> a<!-- not text -->&lt;<![CDATA[<&>]]>&#xE9;\r\n</string>", " a<<&>\xC3\xA9\n"},
        {"<data> AAH/\n\tfg== </data>", value::Data{std::byte{0}, std::byte{1}, std::byte{0xFF}, std::byte{0x7E}}},
        {"<date>2001-01-01T00:00:00Z</date>", value::Date{978307200}},
        {"<date>1969-12-31T23:59:59Z</date>", value::Date{-1}},
        {"<array><array/><dict/></array>", Array{Array{}, Dictionary{}}},
        {"<dict><key>b</key><integer>1</integer> <key></key><array><true/></array></dict>",
         Dictionary{{"b", 1}, {"", Array{true}}}},
    };
    for (const auto& row : rows) {
        const auto root = read(inPlist(row.body));
        ASSERT_TRUE(root) << row.body << root.error().localizedDescription();
        EXPECT_EQ(*root, row.value) << row.body;
        EXPECT_EQ(root->kind(), row.value.kind()) << row.body;
    }
    EXPECT_TRUE(std::isnan(*read(inPlist("<real>nan</real>"))->real()));
}

TEST(XmlPlist, ReadsItsEncodingsAndPassesOverADeclarationOfTheDocumentType) {
    const std::string body = inPlist("<string>\xE9</string>");
    EXPECT_EQ(*read("<?xml version='1.0' encoding='ISO-8859-1'?>" + body), Value{"\xC3\xA9"});
    EXPECT_EQ(*read("\xEF\xBB\xBF" + inPlist("<true/>")), Value{true});
    std::string wide = "\xFE\xFF";
    for (const char c : inPlist("<string>a</string>")) wide.append(1, '\0').append(1, c);
    EXPECT_EQ(*read(wide), Value{"a"});
    EXPECT_EQ(*read("<?xml version='1.0'?><!DOCTYPE plist SYSTEM 'nowhere.dtd'><?pi?>" + inPlist("<true/>")),
              Value{true});
}

TEST(XmlPlist, RefusesWhatIsNotStrictlyAPropertyListAndSaysWhere) {
    const struct {
        std::string text;
        const char* message;
    } rows[] = {
        {"", "line 1, column 1: no element found"},
        {"<plist>\n  <string>a</strin></plist>", "line 2, column 14: mismatched tag"},
        {"<dict/>", "<dict> out of place"},
        {"<plist/>", "no value"},
        {inPlist("<plist><true/></plist>"), "<plist> out of place"},
        {inPlist("<true/><true/>"), "more than one root"},
        {inPlist("<array><true/></dict>"), "mismatched tag"},
        {inPlist("<string>]]></string>"), "not well-formed"},
        {inPlist("<string>\xEF\xBF\xBF</string>"), "not well-formed"},
        {inPlist("<true/>") + "<plist/>", "junk after document element"},
        {inPlist("<uid>1</uid>"), "unknown element <uid>"},
        {inPlist("<string a=\"b\">x</string>"), "unknown attribute"},
        {inPlist("<array>x</array>"), "text outside a value"},
        {inPlist("x<true/>"), "text outside a value"},
        {inPlist("<true>x</true>"), "text in a boolean"},
        {inPlist("<string><true/></string>"), "<true> inside a plain value"},
        {inPlist("<key>a</key>"), "key outside a dictionary"},
        {inPlist("<array><key>a</key></array>"), "key outside a dictionary"},
        {inPlist("<dict><key>a</key></dict>"), "key without a value"},
        {inPlist("<dict><key>a</key><key>b</key></dict>"), "key without a value"},
        {inPlist("<dict><true/></dict>"), "value without a key"},
        {inPlist("<dict><key>a</key><true/><array/></dict>"), "value without a key"},
        {inPlist("<dict><key>a</key><true/><key>a</key><true/></dict>"), "a key stands twice"},
        {inPlist("<string>&unknown;</string>"), "undefined entity"},
        {"<!DOCTYPE plist SYSTEM 'x'>" + inPlist("<string>a&unknown;b</string>"), "unknown entity"},
        {"<!DOCTYPE plist [<!ENTITY a 'b'>]>" + inPlist("<string>&a;</string>"), "internal subset"},
        {"<?xml version='1.0' encoding='EBCDIC'?>" + inPlist("<true/>"), "unknown encoding"},
        {inPlist("<string>\xC0\xAF</string>"), "not well-formed"},
        {inPlist("<string>\xED\xA0\x80</string>"), "not well-formed"},
        {inPlist(std::string_view{"<string>\0</string>", 18}), "not well-formed"},
    };
    for (const auto& row : rows) {
        const auto root = readXml(row.text);
        ASSERT_FALSE(root) << row.text;
        EXPECT_EQ(root.error().code, static_cast<std::int64_t>(ErrorCode::malformed)) << row.text;
        EXPECT_THAT(root.error().localizedDescription(), HasSubstr(row.message)) << row.text;
    }
}

TEST(XmlPlist, RefusesTextsThatAreNotOfTheirKind) {
    const struct {
        std::string name;
        std::vector<std::string> texts;
    } rows[] = {
        {"integer",
         {"", "-", "1 2", "1.0", "0x", "+-1", "0x1g", "18446744073709551616", "-9223372036854775809", "one"}},
        {"real", {"", "+-1", "--1", "1,5", "0x1p3", "1e999", "nan(1)", "1.0f"}},
        {"date",
         {"", "2001-01-01", "2001-02-29T00:00:00Z", "2001-13-01T00:00:00Z", "2001-00-01T00:00:00Z",
          "2001-01-01T24:00:00Z", "2001-01-01T00:60:00Z", "2001-01-01T00:00:60Z", "2001-01-01T00:00:00+",
          "-001-01-01T00:00:00Z", "2001-01-01 00:00:00Z"}},
        {"data", {"A", "AA", "AA=", "AA==A", "AAAA=", "A*AA", "AB=="}},
    };
    for (const auto& row : rows) {
        for (const std::string& text : row.texts) {
            EXPECT_FALSE(read(inPlist("<" + row.name + ">" + text + "</" + row.name + ">"))) << row.name << " " << text;
        }
    }
}

TEST(XmlPlist, StopsAtTheLimits) {
    std::string nested = "<true/>";
    for (int i = 0; i < 3; ++i) nested.insert(0, "<array>").append("</array>");
    const std::string text = inPlist(nested);  // three containers deep, four values
    const struct {
        Limits limits;
        bool within;
    } rows[] = {
        {{.depth = 3}, true},   {{.depth = 2}, false},          {{.values = 4}, true},
        {{.values = 3}, false}, {{.bytes = text.size()}, true}, {{.bytes = text.size() - 1}, false},
    };
    for (const auto& row : rows) {
        const auto root = read(text, row.limits);
        const std::int64_t code = root ? 0 : root.error().code;
        EXPECT_EQ(code, row.within ? 0 : static_cast<std::int64_t>(ErrorCode::beyondLimits));
    }
    std::string endless;
    for (int i = 0; i < 1'000'000; ++i) endless += "<array>";
    EXPECT_FALSE(read("<plist>" + endless));
}

TEST(XmlPlist, GivesBackWhatWasWritten) {
    support::RandomValue random{1};
    for (int i = 0; i < 1000; ++i) {
        const Value value = random();
        const auto text = writeXml(value);
        ASSERT_TRUE(text) << description(value);
        const auto back = readFullXml(*text, {});
        ASSERT_TRUE(back) << *text << back.error().localizedDescription();
        ASSERT_EQ(*back, value) << *text;
        ASSERT_EQ(*writeXml(*back), *text);
        const auto quicklyBack = readPlainXml(*text, {});
        ASSERT_TRUE(quicklyBack) << "what we write ourselves is read the quick way\n" << *text;
        ASSERT_EQ(*writeXml(*quicklyBack), *text);
    }
    for (const double real : {-0.0, 0.1, 5e-324, 1.7976931348623157e308, -std::numeric_limits<double>::infinity()}) {
        const auto back = read(*writeXml(real));
        EXPECT_EQ(back->real(), real);
        EXPECT_EQ(std::signbit(*back->real()), std::signbit(real));
    }
    EXPECT_EQ(*read(*writeXml("\r\n\t]]>")), Value{"\r\n\t]]>"});
    EXPECT_EQ(*read(*writeXml(value::Date{-0.5})), Value{value::Date{-1}});
}

TEST(XmlPlist, WritesTheFormThatOthersRead) {
    const Value value = Dictionary{{"b & c", Array{1, "x", Dictionary{}}}, {"a", true}};
    EXPECT_EQ(*writeXml(value),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n\t<key>a</key>\n\t<true/>\n"
              "\t<key>b &amp; c</key>\n\t<array>\n\t\t<integer>1</integer>\n\t\t<string>x</string>\n\t\t<dict/>\n"
              "\t</array>\n</dict>\n</plist>\n");
}

TEST(XmlPlist, DoesNotWriteWhatItCouldNotReadBack) {
    Value deep = 1;
    for (std::size_t i = 0; i <= Limits{}.depth; ++i) deep = Array{deep};
    const Value rows[] = {
        value::Uuid{},
        value::Error{},
        std::string{"\0", 1},
        "\x1F",
        "\xEF\xBF\xBF",
        "\xC3",
        value::Date{253402300800},
        value::Date{-62167219201},
        value::Date{std::nan("")},
        deep,
        Dictionary{{"\x01", 1}},
    };
    for (const Value& value : rows) {
        const auto text = writeXml(Array{value});
        ASSERT_FALSE(text) << *text;
        EXPECT_EQ(text.error().code, static_cast<std::int64_t>(ErrorCode::unwritable));
    }
    EXPECT_TRUE(writeXml(value::Date{253402300799}));
    EXPECT_TRUE(writeXml(value::Date{-62167219200}));
}

TEST(PlistFile, IsReadInEitherEncodingOrToldFromAMissingOne) {
    const support::TemporaryDirectory root;
    EXPECT_EQ(*readFile(root.write("xml", inPlist("<true/>"))), Value{true});
    const auto broken = readFile(root.write("broken", "<plist>"));
    EXPECT_THAT(broken.error().localizedDescription(), HasSubstr((root / "broken") + ", line 1"));
    EXPECT_EQ(broken.error().domain, "plist");
    const auto missing = readFile(root / "missing");
    EXPECT_EQ(missing.error().domain, "posix");
    EXPECT_EQ(missing.error().code, ENOENT);
}

}  // namespace
}  // namespace plist
