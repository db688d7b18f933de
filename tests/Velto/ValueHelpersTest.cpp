#include "Velto/VTAtomic.h"
#include "Velto/VTValueHelpers.h"
#include "Velto/VTVersionComparison.h"
#include "platform/mox/Object.h"
#include "tests/support/Words.h"

TEST(VersionComparison, OrdersRunsOfDigitsByTheirNumber) {
    EXPECT_EQ(compareVersionString("1.10", "1.9"), std::weak_ordering::greater);
}

TEST(ValueHelpers, ChangeACopy) {
    const Dictionary receiver{{"a", 1}};
    EXPECT_EQ(dictionaryChanging(dictionaryChanging(receiver, "b", 2), "a", {}), (Dictionary{{"b", 2}}));
}

TEST(ValueHelpers, MapACollectionAndLeaveOutWhatGivesNothing) {
    const auto evenDoubled = [](const Value& v) -> std::optional<Value> {
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
