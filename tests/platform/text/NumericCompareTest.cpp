#include "platform/text/NumericCompare.h"
#include "tests/support/Words.h"

namespace text {
namespace {

TEST(CompareNumerically, OrdersNumbersByValueAndTheRestByCharacter) {
    const std::string nines(1000, '9'), zeroes(1000, '0');
    // The texts of a row are the same to it. Digits of other scripts are characters.
    const std::vector<Texts> ascending{{""},
                                       {"-1"},
                                       {"-2"},
                                       {"0", "00"},
                                       {"1"},
                                       {"1.."},
                                       {"1.0", "1.000"},
                                       {"1.2"},
                                       {"1.2B"},
                                       {"1.2a"},
                                       {"1.2b"},
                                       {"1.7", "1.007"},
                                       {"1.007a"},
                                       {"1.9"},
                                       {"1.10"},
                                       {"1a"},
                                       {"1z"},
                                       {"1\xc3\xa9"},
                                       {"2.0"},
                                       {"2.0.1"},
                                       {"2a"},
                                       {"5", zeroes + "5"},
                                       {"10"},
                                       {"19"},
                                       {nines},
                                       {"1" + zeroes},
                                       {"a0", "a00"},
                                       {"a1"},
                                       {"v" + nines + "8"},
                                       {"v" + nines + "9"},
                                       {"\xd9\xa1\xd9\xa0"},
                                       {"\xd9\xa9"}};
    for (std::size_t i = 0; i < ascending.size(); ++i) {
        for (std::size_t j = 0; j < ascending.size(); ++j) {
            for (const std::string& a : ascending[i]) {
                for (const std::string& b : ascending[j]) EXPECT_EQ(compareNumerically(a, b), i <=> j) << a << " " << b;
            }
        }
    }
}

}  // namespace
}  // namespace text
