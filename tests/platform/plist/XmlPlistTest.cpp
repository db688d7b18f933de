#include <cmath>

#include "platform/plist/FullXmlReader.h"
#include "platform/plist/PlainXmlReader.h"
#include "tests/platform/plist/Checks.h"
#include "tests/support/RandomValue.h"

namespace plist {
namespace {

std::string inPlist(std::string_view body) {
    return "<plist version=\"1.0\">" + std::string{body} + "</plist>";
}

TEST(XmlPlist, ReadsEveryKindOfValue) {
    const std::pair<std::string, Value> rows[] = {
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
    for (const auto& [body, value] : rows) expectValue(read(inPlist(body)), value, body);
    EXPECT_TRUE(std::isnan(*read(inPlist("<real>nan</real>"))->real()));
}

TEST(XmlPlist, ReadsItsEncodingsAndPassesOverADeclarationOfTheDocumentType) {
    const std::string isTrue = inPlist("<true/>");
    EXPECT_EQ(*read("<?xml version='1.0' encoding='ISO-8859-1'?>" + inPlist("<string>\xE9</string>")),
              Value{"\xC3\xA9"});
    EXPECT_EQ(*read("\xEF\xBB\xBF" + isTrue), Value{true});
    std::string wide = "\xFE\xFF";
    for (const char c : isTrue) wide.append(1, '\0').append(1, c);
    EXPECT_EQ(*read(wide), Value{true});
    EXPECT_EQ(*read("<?xml version='1.0'?><!DOCTYPE plist SYSTEM 'nowhere.dtd'><?pi?>" + isTrue), Value{true});
}

TEST(XmlPlist, RefusesWhatIsNotStrictlyAPropertyListAndSaysWhere) {
    const std::pair<const char*, Texts> rows[] = {
        {"unknown element <uid>", {"<uid>1</uid>"}},
        {"unknown attribute", {"<string a=\"b\">x</string>"}},
        {"more than one root", {"<true/><true/>"}},
        {"<plist> out of place", {"<plist><true/></plist>"}},
        {"text outside a value", {"<array>x</array>", "x<true/>"}},
        {"text in a boolean", {"<true>x</true>"}},
        {"<true> inside a plain value", {"<string><true/></string>"}},
        {"key outside a dictionary", {"<key>a</key>", "<array><key>a</key></array>"}},
        {"key without a value", {"<dict><key>a</key></dict>", "<dict><key>a</key><key>b</key></dict>"}},
        {"value without a key", {"<dict><true/></dict>", "<dict><key>a</key><true/><array/></dict>"}},
        {"a key stands twice", {"<dict><key>a</key><true/><key>a</key><true/></dict>"}},
        {"undefined entity", {"<string>&unknown;</string>"}},
        {"not well-formed",
         {"<string>]]></string>", "<string>\xEF\xBF\xBF</string>", "<string>\xC0\xAF</string>",
          "<string>\xED\xA0\x80</string>", "<string>\0</string>"s}},
    };
    for (const auto& [message, bodies] : rows) {
        for (const std::string& body : bodies) expectRefusal(readXml(inPlist(body)), ErrorCode::malformed, message);
    }
    const std::pair<const char*, std::string> lists[] = {
        {"line 1, column 1: no element found", ""},
        {"line 2, column 14: mismatched tag", "<plist>\n  <string>a</strin></plist>"},
        {"<dict> out of place", "<dict/>"},
        {"no value", "<plist/>"},
        {"junk after document element", "<plist><true/></plist><plist/>"},
        {"unknown entity", "<!DOCTYPE plist SYSTEM 'x'><plist><string>a&unknown;b</string></plist>"},
        {"internal subset", "<!DOCTYPE plist [<!ENTITY a 'b'>]><plist><string>&a;</string></plist>"},
        {"unknown encoding", "<?xml version='1.0' encoding='EBCDIC'?><plist><true/></plist>"},
    };
    for (const auto& [message, text] : lists) expectRefusal(readXml(text), ErrorCode::malformed, message);
}

TEST(XmlPlist, RefusesTextsThatAreNotOfTheirKind) {
    const std::pair<std::string, Texts> rows[] = {
        {"integer",
         {"", "-", "1 2", "1.0", "0x", "+-1", "0x1g", "18446744073709551616", "-9223372036854775809", "one"}},
        {"real", {"", "+-1", "--1", "1,5", "0x1p3", "1e999", "nan(1)", "1.0f"}},
        {"date",
         {"", "2001-01-01", "2001-02-29T00:00:00Z", "2001-13-01T00:00:00Z", "2001-00-01T00:00:00Z",
          "2001-01-01T24:00:00Z", "2001-01-01T00:60:00Z", "2001-01-01T00:00:60Z", "2001-01-01T00:00:00+",
          "-001-01-01T00:00:00Z", "2001-01-01 00:00:00Z"}},
        {"data", {"A", "AA", "AA=", "AA==A", "AAAA=", "A*AA", "AB=="}},
    };
    for (const auto& [kind, texts] : rows) {
        for (const std::string& text : texts)
            EXPECT_FALSE(read(inPlist("<" + kind + ">" + text + "</" + kind + ">"))) << text;
    }
}

TEST(XmlPlist, StopsAtTheLimits) {
    std::string nested = "<true/>";
    for (int i = 0; i < 3; ++i) nested.insert(0, "<array>").append("</array>");
    const std::string text = inPlist(nested);  // three containers deep, four values
    for (const Limits& enough : {Limits{.depth = 3}, Limits{.values = 4}, Limits{.bytes = text.size()}})
        EXPECT_TRUE(read(text, enough));
    for (const Limits& less : {Limits{.depth = 2}, Limits{.values = 3}, Limits{.bytes = text.size() - 1}})
        expectRefusal(read(text, less), ErrorCode::beyondLimits, "");
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

TEST(XmlPlist, DoesNotWriteWhatItCouldNotReadBack) {
    Value deep = 1;
    for (std::size_t i = 0; i <= Limits{}.depth; ++i) deep = Array{deep};
    const Array texts{"\0"s, "\x1F", "\xEF\xBF\xBF", "\xC3"};
    const Array dates{value::Date{253402300800}, value::Date{-62167219201}, value::Date{std::nan("")}};
    const Array others{value::Uuid{}, value::Error{}, deep, Dictionary{{"\x01", 1}}};
    for (const Array& unwritable : {texts, dates, others}) {
        for (const Value& value : unwritable) expectRefusal(writeXml(Array{value}), ErrorCode::unwritable, "");
    }
    EXPECT_TRUE(writeXml(Array{value::Date{253402300799}, value::Date{-62167219200}}));
}

}  // namespace
}  // namespace plist
