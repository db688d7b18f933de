#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/mox/View.h"
#include "platform/value/Value.h"

// Activation rules: which items of a host a plug-in takes.
namespace activation {

// A host's items, {"items": [{"types": [...]}]}, read once for the many rules that they are held against. Items of the
// same types are kept once, with their number.
//
// Refers to the texts of what it was read from, which must outlive it. Immutable: any thread.
class Items {
public:
    explicit Items(const value::Dictionary& items);
    explicit Items(mox::View items);

    // What holding them against any rule costs, in units of effort.
    std::uint64_t price() const;

private:
    friend bool evaluate(const value::Value& rule, const Items& items);

    void readItem(const value::Value& item);
    void readItem(mox::View item);
    void addType(std::optional<std::string_view> type);
    void endItem();

    std::vector<std::string_view> types_;  // each once
    std::unordered_map<std::string_view, std::uint8_t> places_;
    std::vector<bool> isOfItem_;              // by type, of the item that is being read
    using Types = std::vector<std::uint8_t>;  // places in types_
    Types item_;
    std::map<Types, std::int64_t> counts_;  // of items, by their types in ascending order
    bool isSound_ = true;                   // else no rule but a boolean accepts them
};

// The rule is a boolean, which is the answer, or a dictionary from type identifier to the largest number of items.
// Accepted when every item has a type that conforms to some key, no key has more items than its number (an item counts
// once for each key that one of its types conforms to), and there is at least one item. Anything else: no; so are rules
// of more than 512 keys and items of more than 256 different types, since both sides come from outside and every pair
// of them has to be looked at. Charged to the request; no once that is spent. Any thread.
bool evaluate(const value::Value& rule, const Items& items);
bool evaluate(const value::Value& rule, const value::Dictionary& items);

}  // namespace activation
