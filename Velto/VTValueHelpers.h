#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/mox/View.h"
#include "platform/value/Value.h"

// A copy of the dictionary in which the key maps to the value; without a value, a copy without the key.
inline value::Dictionary dictionaryChanging(const value::Dictionary& dictionary, std::string_view key,
                                            std::optional<value::Value> value) {
    return dictionary.changing(key, std::move(value));
}

// The text under the key; empty where there is none, or another kind.
inline std::string textIn(const value::Dictionary& dictionary, std::string_view key) {
    const std::string* text = dictionary.string(key);
    return text != nullptr ? *text : std::string{};
}

// The number under the key, or the nearest that the type holds; nothing where what is there says no number.
template <typename Integer>
std::optional<Integer> numberIn(const value::Dictionary& dictionary, std::string_view key) {
    const value::Value* found = dictionary.find(key);
    const auto wide = found != nullptr ? found->integerValue() : std::nullopt;
    if (!wide) return {};
    return static_cast<Integer>(
        std::clamp<std::int64_t>(*wide, std::numeric_limits<Integer>::min(), std::numeric_limits<Integer>::max()));
}

// What the function makes of each element, in order; elements that it answers with nothing are left out.
template <typename Collection, typename Function>
value::Array arrayWithValues(const Collection& collection, Function&& function) {
    value::Array::Storage values;
    for (const auto& element : collection) {
        if (std::optional<value::Value> made = function(element)) values.push_back(*std::move(made));
    }
    return value::Array{std::move(values)};
}

// Typed lookups in a Mox dictionary: a value of another kind reads as absent.
inline std::optional<mox::View> mox_dictionary_get_array(mox::View dictionary, std::string_view key) {
    const std::optional<mox::View> found = dictionary.find(key);
    return found && found->isArray() ? found : std::nullopt;
}
inline std::optional<mox::View> mox_dictionary_get_dictionary(mox::View dictionary, std::string_view key) {
    const std::optional<mox::View> found = dictionary.find(key);
    return found && found->isDictionary() ? found : std::nullopt;
}
