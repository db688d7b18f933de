#include "platform/activation/ActivationRule.h"
#include "tests/support/Words.h"

namespace activation {
namespace {

Value item(Array types) {
    return Dictionary{{"types", std::move(types)}};
}

Dictionary items(Array elements) {
    return {{"items", std::move(elements)}};
}

Value manyKeys(int count) {
    Dictionary::Builder rule;
    for (int i = 0; i < count; ++i) rule.set("key" + std::to_string(i), 1000);
    return std::move(rule).build();
}

Array manyTypes(int count) {
    Array::Storage elements;
    for (int i = 0; i < count; ++i) elements.push_back(item({"key0", "type" + std::to_string(i)}));
    return Array{std::move(elements)};
}

TEST(ActivationRule, AcceptsWhatEveryItemAndEveryKeyAllows) {
    const support::PrivateRoot root;
    root.writeList("system/Types.plist", Dictionary{{"jpeg", "image"}, {"png", "image"}});
    const Value jpeg = item({"jpeg"});
    const Value png = item({"png"});
    const Value text = item({"text"});
    const struct {
        const char* name;
        Value rule;
        Dictionary given;
        bool accepted;
    } rows[] = {
        {"true takes anything", true, {}, true},
        {"false nothing", false, items({jpeg}), false},
        {"a number is no rule", 1, items({jpeg}), false},
        {"a text is no rule", "true", items({jpeg}), false},
        {"its own type", Dictionary{{"jpeg", 1}}, items({jpeg}), true},
        {"a supertype", Dictionary{{"image", 2}}, items({jpeg, png}), true},
        {"not a subtype", Dictionary{{"jpeg", 1}}, items({item({"image"})}), false},
        {"one too many", Dictionary{{"image", 1}}, items({jpeg, png}), false},
        {"one of its types will do", Dictionary{{"image", 1}}, items({item({"text", "jpeg"})}), true},
        {"every item must be taken", Dictionary{{"image", 5}}, items({jpeg, text}), false},
        {"by some key", Dictionary{{"image", 5}, {"text", 1}}, items({jpeg, text, png}), true},
        {"an item counts for each key", Dictionary{{"image", 5}, {"jpeg", 1}}, items({jpeg, jpeg}), false},
        {"but once for a key", Dictionary{{"image", 1}}, items({item({"jpeg", "png", "jpeg"})}), true},
        {"none of it", Dictionary{{"image", 0}}, items({jpeg}), false},
        {"a negative number", Dictionary{{"text", 1}, {"image", -1}}, items({text}), false},
        {"true counts as one", Dictionary{{"image", true}}, items({jpeg}), true},
        {"no items", Dictionary{{"image", 1}}, items({}), false},
        {"nothing given", Dictionary{{"image", 1}}, {}, false},
        {"an empty rule", Dictionary{}, items({jpeg}), false},
        {"an item without types", Dictionary{{"image", 1}}, items({item({})}), false},
        {"a number that is none", Dictionary{{"image", "1"}}, items({jpeg}), false},
        {"items that are none", Dictionary{{"image", 1}}, {{"items", Dictionary{{"types", Array{"jpeg"}}}}}, false},
        {"an item that is none", Dictionary{{"image", 9}}, items({jpeg, "jpeg"}), false},
        {"types that are none", Dictionary{{"image", 9}}, items({Dictionary{{"types", "jpeg"}}}), false},
        {"a type that is none", Dictionary{{"image", 9}}, items({item({"jpeg", 1})}), false},
        {"as many keys as go", manyKeys(256), items({item({"key255"})}), true},
        {"more keys", manyKeys(257), items({item({"key256"})}), false},
        {"as many types as go", Dictionary{{"key0", 1000}}, items(manyTypes(255)), true},
        {"more types", Dictionary{{"key0", 1000}}, items(manyTypes(256)), false},
    };
    for (const auto& row : rows) EXPECT_EQ(evaluate(row.rule, row.given), row.accepted) << row.name;
}

}  // namespace
}  // namespace activation
