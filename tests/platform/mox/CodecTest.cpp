#include "platform/mox/Dictionary.h"
#include "platform/mox/Encoder.h"
#include "platform/mox/Object.h"
#include "tests/support/Hex.h"
#include "tests/support/RandomValue.h"
#include "tests/support/Words.h"

namespace mox {
namespace {

using support::fromHex;

std::vector<std::byte> encoded(const Value& value) {
    Encoder encoder;
    encoder.value(value);
    return encoder.take();
}

TEST(Codec, EveryValueComesBackWithItsExactKinds) {
    support::RandomValue random{1};
    for (int i = 0; i < 2000; ++i) {
        const Value value = random();
        const auto bytes = encoded(value);
        const auto decoded = Object::decode(bytes, kRequestLimits);
        ASSERT_TRUE(decoded) << decoded.error().localizedDescription();
        EXPECT_EQ(decoded->view().toValue(), value) << value::description(value);
        // Equality of values is lax between kinds of numbers; the bytes are not.
        EXPECT_EQ(encoded(decoded->view().toValue()), bytes);
    }
}

TEST(Codec, RefusesAValueCutAtAnyByteAndOneWithMoreBehindIt) {
    auto bytes = encoded(value::Dictionary{{"list", Array{1, "two", 3.0, true}},
                                           {"token", value::Uuid::random()},
                                           {"bytes", value::Data(5)},
                                           {"when", value::Date{7}}});
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        EXPECT_TRUE(check(Bytes{bytes}.first(size), kRequestLimits)) << size;
    }
    EXPECT_FALSE(check(bytes, kRequestLimits));
    bytes.push_back(std::byte{1});
    EXPECT_TRUE(check(bytes, kRequestLimits));
}

TEST(Codec, RefusesWhatTheBytesCannotHold) {
    const std::pair<const char*, std::vector<const char*>> rows[] = {
        {"unknown kind", {"00", "0d", "0b 04000000 00000000"}},  // the last: an error from outside
        {"neither 0 nor 1", {"01 02"}},
        {"beyond what is left", {"05 ffffffff 61"}},
        {"not UTF-8",
         {"05 02000000 c3 28", "05 02000000 c0 af", "05 03000000 ed a0 80", "09 0b000000 01000000 01000000 ff 0100"}},
        {"cut off", {"06 ffffffff", "08 06000000 01000000 02 00 00 00 00 00 00 00 00"}},
        {"size beyond", {"08 ffffffff 00000000"}},
        {"count beyond", {"08 06000000 ffffffff 0100"}},
        {"room for the count", {"08 03000000 000000 00"}},
        {"where its size says", {"08 07000000 01000000 0100 00"}},
        {"stands twice",  // at once, and out of order with another between
         {"09 10000000 02000000 00000000 0100 00000000 0100",
          "09 19000000 03000000 01000000 62 0100 01000000 61 0100 01000000 62 0100"}},
        {"inside another", {"0c 0c 0100", "0c 08 07000000 01000000 0c 0100"}},  // message forms
    };
    for (const auto& [what, values] : rows) {
        for (const char* hex : values) {
            const auto error = check(fromHex(hex), kRequestLimits);
            EXPECT_THAT(error ? *error->message : "", HasSubstr(what)) << hex;
        }
    }
    EXPECT_EQ(check(fromHex("09 12000000 02000000 01000000 62 0100 01000000 61 0100"), kRequestLimits), std::nullopt)
        << "keys need not ascend";
    EXPECT_EQ(check(fromHex("08 0a000000 02000000 0c 0100 0c 0101"), kRequestLimits), std::nullopt)
        << "message forms side by side";
}

TEST(Codec, HoldsTheLimitsOfDepthAndNumberAndSize) {
    const auto nested = [](int depth) {
        Value value = Array{};
        for (int i = 1; i < depth; ++i) value = Array{value};
        return encoded(value);
    };
    EXPECT_FALSE(check(nested(32), kRequestLimits));
    EXPECT_TRUE(check(nested(33), kRequestLimits));
    EXPECT_TRUE(check(nested(200), Limits{1 << 20, 1'000'000, 1000})) << "whatever the limits ask for";

    const auto three = encoded(Array{1, 2});
    EXPECT_FALSE(check(three, Limits{three.size(), 1, 3}));
    EXPECT_TRUE(check(three, Limits{three.size(), 1, 2}));
    EXPECT_TRUE(check(three, Limits{three.size() - 1, 1, 3}));
}

TEST(View, ReadsNothingFromAnotherKind) {
    const Object object{value::Dictionary{{"text", "1"}, {"number", 1}, {"list", Array{1, 2, 3}}}};
    const View text = *object.view().find("text");
    EXPECT_FALSE(text.boolean() || text.signedInteger() || text.unsignedInteger() || text.real() || text.data() ||
                 text.date() || text.uuid() || text.message() || text.error() || text.find("text"));
    EXPECT_FALSE(object.view().find("number")->string());
    EXPECT_FALSE(object.view().find("number")->unsignedInteger());
    EXPECT_FALSE(object.view().find("absent"));
    EXPECT_EQ(text.count(), 0U);
    int seen = 0;
    EXPECT_FALSE(object.view().find("list")->forEachElement([&](View) { return ++seen < 2; }));
    EXPECT_EQ(seen, 2) << "a visitor can end the visit";
}

TEST(Encoder, WritesNoTextThatAReaderWouldRefuse) {
    const std::string bad = "/caf\xE9";
    const mox::Object object{value::Dictionary{{"path", bad}, {bad, true}}};
    EXPECT_EQ(mox::check(object.view().encoded(), mox::kReplyLimits), std::nullopt);
    EXPECT_EQ(object.view().find("path")->string(), "/caf\uFFFD");
    EXPECT_EQ(object.view().find("/caf\uFFFD")->boolean(), true);
}

TEST(Encoder, SplicedBytesReadAsIfTheyHadBeenEncodedInPlace) {
    Encoder entries;
    Encoder::Container ignored = entries.beginDictionary();
    const std::size_t start = entries.size();
    entries.key(ignored, "b");
    entries.value(2);
    const auto cached = entries.take();

    Encoder encoder;
    encoder.beginMessage();
    Encoder::Container dictionary = encoder.beginDictionary();
    encoder.key(dictionary, "a");
    encoder.value(1);
    encoder.spliceEntries(dictionary, Bytes{cached}.subspan(start), 1);
    encoder.end(dictionary);

    Dictionary message;
    message.set("matches", "replaced");
    message.setEncoded("matches", std::make_shared<const std::vector<std::byte>>(encoder.take()));
    const Object object = message.toObject();
    ASSERT_EQ(check(object.view().encoded(), kRequestLimits), std::nullopt);
    EXPECT_EQ(object.view().find("matches")->message()->toValue(), (value::Dictionary{{"a", 1}, {"b", 2}}));
}

TEST(Dictionary, ReplacesEntriesAroundThoseThatLieElsewhere) {
    Encoder encoder;
    encoder.value(value::Data(5000));
    const auto large = std::make_shared<const std::vector<std::byte>>(encoder.take());
    Dictionary message;
    message.set("first", 1);
    message.setEncoded("large", large);
    message.setEncoded("other", large);
    message.set("first", "text");
    message.set("large", false);
    const Object object = message.toObject();
    ASSERT_EQ(check(object.view().encoded(), kRequestLimits), std::nullopt);
    EXPECT_EQ(object.view().toValue(),
              (value::Dictionary{{"first", "text"}, {"large", false}, {"other", value::Data(5000)}}));
}

TEST(Object, ErrorsKeepTheirPartsAndAPartOutlivesTheWhole) {
    const value::Error errors[] = {{"mox", 1, "gone"}, {"Velto", -4, {}}};
    for (const value::Error& error : errors) EXPECT_EQ(Object{error}.view().error(), error);

    std::optional<Object> part;
    {
        const Object whole{value::Dictionary{{"inner", value::Dictionary{{"k", "v"}}}}};
        part = whole.part(*whole.view().find("inner"));
    }
    EXPECT_EQ(part->view().find("k")->string(), "v");
}

TEST(Description, ShowsKindsAndStaysBounded) {
    const Object object{value::Dictionary{{"a", 1U}, {"list", Array{"x", true, value::Data(2)}}}};
    EXPECT_EQ(description(object.view()), "dictionary { \"a\" = uint64 1 \"list\" = array { \"x\" true data 0000 } }");
    const Object huge{Array{Array::Storage(100'000, "text")}};
    EXPECT_LT(description(huge.view()).size(), 20'000U);
}

}  // namespace
}  // namespace mox
