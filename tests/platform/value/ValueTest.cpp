#include "platform/value/Value.h"
#include "tests/support/Words.h"

namespace value {
namespace {

constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();
constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();
constexpr double kNoNumber = std::numeric_limits<double>::quiet_NaN();

TEST(Value, NumbersCompareByValueAcrossKindsAndNothingElseDoes) {
    const struct {
        Value a, b;
        bool equal;
    } rows[] = {
        {true, 1, true},
        {false, 0.0, true},
        {true, 2, false},
        {7, 7U, true},
        {-1, kLargest, false},
        {(1L << 53) + 1, 9007199254740992.0, false},  // no rounding into equality
        {kLargest, 18446744073709551616.0, false},
        {kNoNumber, kNoNumber, false},
        {"1", 1, false},
        {Array{1, Dictionary{{"k", true}}}, Array{1.0, Dictionary{{"k", 1}}}, true},
    };
    for (const auto& row : rows) EXPECT_EQ(row.a == row.b, row.equal) << description(row.a) << description(row.b);
}

TEST(Value, IntegerAndBooleanReadingsFollowThePlatform) {
    const struct {
        Value value;
        std::optional<std::int64_t> integer;
        bool truth;
    } rows[] = {
        {true, 1, true},
        {-3.9, -3, true},
        {1e300, kHighest, true},
        {kLargest, kHighest, true},
        {" 12abc", 12, true},
        {"yes", 0, true},
        {"no", 0, false},
        {"-99999999999999999999", -kHighest - 1, true},
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
    EXPECT_EQ(description(built), "{a = a!; b = b!; m = m!}");
    EXPECT_EQ(Dictionary::ofUnique({{"m", "m!"}, {"a", "a!"}, {"b", "b!"}}), built);
    EXPECT_FALSE(Dictionary::ofUnique({{"m", 1}, {"a", 1}, {"m", 2}}));
    EXPECT_EQ(built.changing("c", 2).changing("a", {}).changing("absent", {}),
              (Dictionary{{"m", "m!"}, {"b", "b!"}, {"c", 2}}));

    Dictionary::Builder descending;  // by moving what is there for each it would take minutes
    for (int i = 300'000; i > 0; --i) descending.set(std::to_string(1'000'000 + i / 2), i);
    EXPECT_EQ(descending.size(), 150'001);
    EXPECT_EQ(*descending.find("1000001"), Value{2}) << "the last one set";
}

TEST(Uuid, CanonicalTextIsReadBackAndNothingElseIs) {
    EXPECT_EQ(Uuid::parse("00112233-4455-6677-8899-aabbccddeeff")->string(), "00112233-4455-6677-8899-AABBCCDDEEFF");
    for (const char* bad : {"", "00112233-4455-6677-8899-AABBCCDDEEF", "00112233-4455-6677-8899-AABBCCDDEEFFF",
                            "00112233x4455-6677-8899-AABBCCDDEEFF", "0011223g-4455-6677-8899-AABBCCDDEEFF"})
        EXPECT_FALSE(Uuid::parse(bad)) << bad;
}

}  // namespace
}  // namespace value
