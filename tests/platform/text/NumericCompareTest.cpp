#include <string>

#include <gtest/gtest.h>

#include "platform/text/NumericCompare.h"

namespace text {
namespace {

const std::string kThousandNines(1000, '9');
const std::string kThousandZeroes(1000, '0');

TEST(CompareNumerically, OrdersNumbersByValueAndTheRestByCharacter) {
    const struct {
        std::string_view name;
        std::string a, b;
        std::weak_ordering order;
    } rows[] = {
        {"both empty", "", "", std::weak_ordering::equivalent},
        {"empty is a prefix", "", "0", std::weak_ordering::less},
        {"the same", "1.2", "1.2", std::weak_ordering::equivalent},
        {"ten after nine", "1.10", "1.9", std::weak_ordering::greater},
        {"a prefix comes first", "2.0", "2.0.1", std::weak_ordering::less},
        {"the number comes before what follows it", "2a", "10", std::weak_ordering::less},
        {"letters decide", "1.2a", "1.2b", std::weak_ordering::less},
        {"case matters", "1.2B", "1.2a", std::weak_ordering::less},
        {"leading zeroes do not matter", "1.007", "1.7", std::weak_ordering::equivalent},
        {"but what follows them does", "1.007a", "1.7", std::weak_ordering::greater},
        {"zero is a number", "1.000", "1.0", std::weak_ordering::equivalent},
        {"zero before one", "a00", "a1", std::weak_ordering::less},
        {"a digit against a sign before the digits", "1.1", "1..", std::weak_ordering::greater},
        {"a digit against a letter", "19", "1a", std::weak_ordering::greater},
        {"no sign", "-1", "-2", std::weak_ordering::less},
        {"runs no integer can hold", "v" + kThousandNines + "8", "v" + kThousandNines + "9", std::weak_ordering::less},
        {"a longer run is more", kThousandNines, "1" + kThousandZeroes, std::weak_ordering::less},
        {"zeroes without end", kThousandZeroes + "5", "5", std::weak_ordering::equivalent},
        {"bytes above ASCII come last", "1\xc3\xa9", "1z", std::weak_ordering::greater},
        {"digits of other scripts are characters", "\xd9\xa9", "\xd9\xa1\xd9\xa0", std::weak_ordering::greater},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(compareNumerically(row.a, row.b), row.order) << row.name;
        EXPECT_EQ(compareNumerically(row.b, row.a), 0 <=> row.order) << row.name << ", turned round";
    }
}

}  // namespace
}  // namespace text
