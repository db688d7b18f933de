#include "platform/text/NumericCompare.h"
#include "tests/support/Words.h"

namespace text {
namespace {

TEST(CompareNumerically, OrdersNumbersByValueAndTheRestByCharacter) {
    // Digits of other scripts are characters.
    const Texts ascending = {"",        "-1",    "-2",  "0",      "1",   "1..",  "1.0", "1.2", "1.2B",
                             "1.2a",    "1.2b",  "1.7", "1.007a", "1.9", "1.10", "1a",  "1z",  "1\xc3\xa9",
                             "2.0",     "2.0.1", "2a",  "5",      "10",  "19",   "a0",  "a1",  "\xd9\xa1\xd9\xa0",
                             "\xd9\xa9"};
    for (std::size_t i = 0; i < ascending.size(); ++i) {
        for (std::size_t j = 0; j < ascending.size(); ++j)
            EXPECT_EQ(compareNumerically(ascending[i], ascending[j]), i <=> j) << ascending[i] << " " << ascending[j];
    }
    const std::string nines(1000, '9'), zeroes(1000, '0');
    EXPECT_TRUE(compareNumerically("1" + zeroes, nines) > 0);
    EXPECT_TRUE(compareNumerically("v" + nines + "8", "v" + nines + "9") < 0);
    const std::pair<std::string, std::string> equal[] = {
        {"0", "00"}, {"1.0", "1.000"}, {"1.7", "1.007"}, {"5", zeroes + "5"}, {"a0", "a00"}};
    for (const auto& [a, b] : equal) EXPECT_TRUE(compareNumerically(a, b) == 0) << a << " " << b;
}

}  // namespace
}  // namespace text
