#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "Velto/VTAtomic.h"
#include "Velto/VTError.h"
#include "Velto/VTValueHelpers.h"
#include "Velto/VTVersionComparison.h"
#include "platform/mox/Object.h"

using value::Array;
using value::Dictionary;

TEST(Errors, HaveTheSystemsDomainAndAMessageOnlyWhenGiven) {
    EXPECT_EQ(VTError(12), (value::Error{"Velto", 12, std::nullopt}));
    EXPECT_EQ(VTError(12, "why"), (value::Error{"Velto", 12, "why"}));
    EXPECT_EQ(VTErrorWithFormat(4, "{} of {}", "one", 2), (value::Error{"Velto", 4, "one of 2"}));
}

TEST(VersionComparison, OrdersRunsOfDigitsByTheirNumber) {
    const char* const ascending[] = {"", "1", "1.2", "1.2.0", "1.2a", "1.2b", "1.9", "1.10", "2.0", "2.0.1", "9", "10"};
    for (const char* const* a = std::begin(ascending); a != std::end(ascending); ++a) {
        for (const char* const* b = std::begin(ascending); b != std::end(ascending); ++b) {
            EXPECT_EQ(compareVersionString(*a, *b), a <=> b) << *a << " and " << *b;
        }
    }
}

TEST(ValueHelpers, ChangeACopyAndLeaveTheReceiver) {
    const Dictionary receiver{{"a", 1}};
    EXPECT_EQ(dictionaryChanging(receiver, "b", 2), (Dictionary{{"a", 1}, {"b", 2}}));
    EXPECT_EQ(dictionaryChanging(receiver, "a", {}), Dictionary{});
    EXPECT_EQ(receiver, (Dictionary{{"a", 1}}));
}

TEST(ValueHelpers, MapACollectionAndLeaveOutWhatGivesNothing) {
    const auto evenDoubled = [](const value::Value& v) -> std::optional<value::Value> {
        if (*v.integerValue() % 2 != 0) return {};
        return *v.integerValue() * 2;
    };
    EXPECT_EQ(arrayWithValues(Array{1, 2, 3, 4}, evenDoubled), (Array{4, 8}));
}

TEST(ValueHelpers, TypedLookupsReadAnotherKindAsAbsent) {
    const mox::Object object{Dictionary{{"array", Array{1}}, {"dictionary", Dictionary{{"k", 1}}}, {"text", "t"}}};
    EXPECT_EQ(mox_dictionary_get_array(object.view(), "array")->count(), 1U);
    EXPECT_EQ(mox_dictionary_get_dictionary(object.view(), "dictionary")->count(), 1U);
    for (const char* key : {"text", "dictionary", "absent"}) EXPECT_FALSE(mox_dictionary_get_array(object.view(), key));
    for (const char* key : {"text", "array", "absent"}) EXPECT_FALSE(mox_dictionary_get_dictionary(object.view(), key));
    EXPECT_FALSE(mox_dictionary_get_array(*object.view().find("text"), "array"));
}

TEST(Atomic, ReadersSeeWholeValuesWhileOthersStore) {
    const std::string texts[] = {std::string(100, 'a'), std::string(200, 'b')};
    VTAtomic<std::string> property{texts[0]};
    const auto store = [&](int which) {
        for (int i = 0; i < 20'000; ++i) property.store(texts[(i + which) % 2]);
    };
    std::thread one{store, 0};
    std::thread other{store, 1};
    bool whole = true;
    for (int i = 0; i < 20'000; ++i) {
        const std::string seen = property.load();
        whole = whole && (seen == texts[0] || seen == texts[1]);
    }
    one.join();
    other.join();
    EXPECT_TRUE(whole);
}
