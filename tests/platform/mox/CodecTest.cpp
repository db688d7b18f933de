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

TEST(Codec, EveryValueComesBackWithItsExactKindsButNotOneCutAnywhereOrWithMoreBehindIt) {
    support::RandomValue random{1};
    for (std::size_t i = 0; i < 2000; ++i) {
        const Value value = random();
        auto bytes = encoded(value);
        const auto decoded = Object::decode(bytes, kRequestLimits);
        ASSERT_TRUE(decoded) << whyNot(decoded);
        EXPECT_EQ(decoded->view().toValue(), value) << value::description(value);
        // Equality of values is lax between kinds of numbers; the bytes are not.
        EXPECT_EQ(encoded(decoded->view().toValue()), bytes);
        EXPECT_TRUE(check(Bytes{bytes}.first(i % bytes.size()), kRequestLimits)) << i;
        bytes.push_back(std::byte{1});
        EXPECT_TRUE(check(bytes, kRequestLimits));
    }
}

TEST(Codec, RefusesWhatTheBytesCannotHold) {
    const std::pair<const char*, std::vector<const char*>> rows[] = {
        {"unknown kind", {"00", "0d", "0b 04000000 00000000"}},  // the last: an error from outside
        {"neither 0 nor 1", {"01 02"}},
        {"beyond what is left", {"05 ffffffff 61"}},
        {"not UTF-8",
         {"05 02000000 c3 28", "05 02000000 c0 af", "05 03000000 ed a0 80", "09 0b000000 01000000 01000000 ff 0100"}},
        {"cut off", {"06 ffffffff", "0a 00 11 22", "08 06000000 01000000 02 00 00 00 00 00 00 00 00"}},
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
    for (const char* sound : {"09 12000000 02000000 01000000 62 0100 01000000 61 0100",  // keys need not ascend
                              "08 0a000000 02000000 0c 0100 0c 0101"})                   // message forms side by side
        EXPECT_FALSE(check(fromHex(sound), kRequestLimits)) << sound;
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

TEST(Encoder, WritesNoTextThatAReaderWouldRefuse) {
    const Object object{value::Dictionary{{"path", "/caf\xE9"}, {"/caf\xE9", true}}};
    EXPECT_EQ(check(object.view().encoded(), kReplyLimits), std::nullopt);
    EXPECT_EQ(object.view().toValue(), (value::Dictionary{{"path", "/caf\uFFFD"}, {"/caf\uFFFD", true}}));
}

TEST(Dictionary, HoldsWhatWasSplicedIntoItAndWhatReplacedOtherThings) {
    Encoder entries;
    Encoder::Container ignored = entries.beginDictionary();
    const std::size_t start = entries.size();
    entries.key(ignored, "b");
    entries.value(value::Data(5000));
    Encoder encoder;
    encoder.beginMessage();
    Encoder::Container dictionary = encoder.beginDictionary();
    encoder.key(dictionary, "a");
    encoder.value(1);
    encoder.spliceEntries(dictionary, entries.bytes().subspan(start), 1);
    encoder.end(dictionary);
    const auto large = std::make_shared<const std::vector<std::byte>>(encoder.take());

    Dictionary message;
    message.set("first", "replaced");
    message.setEncoded("large", large);
    message.setEncoded("other", large);
    message.set("first", 1);
    message.set("large", false);
    const Object object = message.toObject();
    ASSERT_EQ(check(object.view().encoded(), kRequestLimits), std::nullopt);
    EXPECT_EQ(object.view().find("first")->toValue(), Value{1});
    EXPECT_EQ(object.view().find("large")->boolean(), false);
    EXPECT_EQ(object.view().find("other")->message()->toValue(),
              (value::Dictionary{{"a", 1}, {"b", value::Data(5000)}}));
}

}  // namespace
}  // namespace mox
