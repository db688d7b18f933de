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

Array manyTypes(int count) {
    Array::Storage types;
    for (int i = 0; i < count; ++i) types.emplace_back("type" + std::to_string(i));
    return Array{std::move(types)};
}

Value manyKeys(int count) {
    Dictionary::Builder rule;
    for (const Value& type : manyTypes(count)) rule.set(*type.string(), 1);
    return std::move(rule).build();
}

TEST(ActivationRule, AcceptsWhatEveryItemAndEveryKeyAllows) {
    const support::PrivateRoot root;
    root.writeList("system/Types.plist", Dictionary{{"jpeg", "image"}, {"png", "image"}});
    const Value jpeg = item({"jpeg"}), png = item({"png"}), text = item({"text"});
    const struct {
        const char* name;
        Value rule;
        Dictionary given;
        bool accepted = false;
    } rows[] = {
        {"true takes anything", true, {}, true},
        {"false nothing", false, items({jpeg})},
        {"a number is no rule", 1, items({jpeg})},
        {"a supertype", Dictionary{{"image", 2}}, items({jpeg, png}), true},
        {"not a subtype", Dictionary{{"jpeg", 1}}, items({item({"image"})})},
        {"one too many", Dictionary{{"image", 1}}, items({jpeg, png})},
        {"one of its types will do", Dictionary{{"image", 1}}, items({item({"text", "jpeg"})}), true},
        {"every item must be taken", Dictionary{{"image", 5}}, items({jpeg, text})},
        {"by some key", Dictionary{{"image", 5}, {"text", 1}}, items({jpeg, text, png}), true},
        {"an item counts for each key", Dictionary{{"image", 5}, {"jpeg", 1}}, items({jpeg, jpeg})},
        {"but once for a key", Dictionary{{"image", 1}}, items({item({"jpeg", "png", "jpeg"})}), true},
        {"a negative number", Dictionary{{"text", 1}, {"image", -1}}, items({text})},
        {"no items", Dictionary{{"image", 1}}, items({})},
        {"an empty rule", Dictionary{}, items({jpeg})},
        {"an item without types", Dictionary{{"image", 1}}, items({item({})})},
        {"a number that is none", Dictionary{{"image", "1"}}, items({jpeg})},
        {"items that are none", Dictionary{{"image", 1}}, {{"items", Dictionary{{"types", Array{"jpeg"}}}}}},
        {"an item that is none", Dictionary{{"image", 9}}, items({jpeg, "jpeg"})},
        {"types that are none", Dictionary{{"image", 9}}, items({Dictionary{{"types", "jpeg"}}})},
        {"a type that is none", Dictionary{{"image", 9}}, items({item({"jpeg", 1})})},
        {"as many as go", manyKeys(512), items({item(manyTypes(256))}), true},
        {"more keys", manyKeys(513), items({item(manyTypes(1))})},
        {"more types", manyKeys(1), items({item(manyTypes(257))})},
    };
    for (const auto& row : rows) EXPECT_EQ(evaluate(row.rule, row.given), row.accepted) << row.name;
}

}  // namespace
}  // namespace activation
