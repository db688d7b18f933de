#include "platform/value/Value.h"
#include "tests/support/Words.h"

namespace value {
namespace {

TEST(Value, NumbersCompareByValueAcrossKindsAndNothingElseDoes) {
    const struct {
        const char* name;
        Value a, b;
        bool equal;
    } rows[] = {
        {"true is 1", true, 1, true},
        {"false is 0.0", false, 0.0, true},
        {"true is not 2", true, 2, false},
        {"signed and unsigned", 7, 7U, true},
        {"minus one is not the largest", -1, std::numeric_limits<std::uint64_t>::max(), false},
        {"no rounding into equality", (1L << 53) + 1, 9007199254740992.0, false},
        {"two to the 64th is no integer", std::numeric_limits<std::uint64_t>::max(), 18446744073709551616.0, false},
        {"not a number", std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::quiet_NaN(), false},
        {"text is no number", "1", 1, false},
        {"containers compare in depth", Array{1, Dictionary{{"k", true}}}, Array{1.0, Dictionary{{"k", 1}}}, true},
    };
    for (const auto& row : rows) EXPECT_EQ(row.a == row.b, row.equal) << row.name;
}

TEST(Value, IntegerAndBooleanReadingsFollowThePlatform) {
    const struct {
        Value value;
        std::optional<std::int64_t> integer;
        bool truth;
    } rows[] = {
        {true, 1, true},
        {-3.9, -3, true},
        {1e300, std::numeric_limits<std::int64_t>::max(), true},
        {std::numeric_limits<std::uint64_t>::max(), std::numeric_limits<std::int64_t>::max(), true},
        {" 12abc", 12, true},
        {"yes", 0, true},
        {"no", 0, false},
        {"-99999999999999999999", std::numeric_limits<std::int64_t>::min(), true},
        {Array{}, std::nullopt, false},
        {Data{}, std::nullopt, false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.value.integerValue(), row.integer) << description(row.value);
        EXPECT_EQ(row.value.booleanValue(), row.truth) << description(row.value);
    }
}

TEST(Dictionary, KeepsUniqueKeysInOrderHoweverTheyCame) {
    Dictionary::Builder builder;
    for (const char* key : {"m", "a", "z", "m", "b"}) builder.set(key, std::string{key} + "!");
    builder.remove("z");
    const Dictionary built = std::move(builder).build();
    std::string keys;
    for (const Dictionary::Entry& entry : built) keys += entry.key;
    EXPECT_EQ(keys, "abm");
    EXPECT_EQ(built, (Dictionary{{"m", "m!"}, {"b", "b!"}, {"a", "a!"}}));
    EXPECT_EQ(*built.string("m"), "m!");
    EXPECT_EQ(built.find("c"), nullptr);
    EXPECT_EQ(Dictionary::ofUnique({{"m", "m!"}, {"a", "a!"}, {"b", "b!"}}), built);
    EXPECT_FALSE(Dictionary::ofUnique({{"m", 1}, {"a", 1}, {"m", 2}}));
}

TEST(Dictionary, ChangingLeavesTheReceiverAsItWas) {
    const Dictionary before{{"a", 1}};
    EXPECT_EQ(before.changing("b", 2).changing("a", {}).changing("absent", {}), (Dictionary{{"b", 2}}));
    EXPECT_EQ(before, (Dictionary{{"a", 1}}));
}

TEST(Uuid, CanonicalTextIsReadBackAndNothingElseIs) {
    const auto uuid = Uuid::parse("00112233-4455-6677-8899-aabbccddeeff");
    ASSERT_TRUE(uuid);
    EXPECT_EQ(uuid->string(), "00112233-4455-6677-8899-AABBCCDDEEFF");
    for (const char* bad : {"", "00112233-4455-6677-8899-AABBCCDDEEF", "00112233-4455-6677-8899-AABBCCDDEEFFF",
                            "00112233x4455-6677-8899-AABBCCDDEEFF", "0011223g-4455-6677-8899-AABBCCDDEEFF"}) {
        EXPECT_FALSE(Uuid::parse(bad)) << bad;
    }
    EXPECT_NE(Uuid::random(), Uuid::random());
}

TEST(Description, IsBoundedHoweverDeepTheValue) {
    Value deep = 1;
    for (int i = 0; i < 1000; ++i) deep = Array{deep};
    EXPECT_LT(description(deep).size(), 100U);
}

}  // namespace
}  // namespace value
