#pragma once

#include "platform/value/Value.h"

// Activation rules: which items of a host a plug-in takes.
namespace activation {

// The rule is a boolean, which is the answer, or a dictionary from type identifier to the largest number of items; the
// host's items are {"items": [{"types": [...]}]}. Accepted when every item has a type that conforms to some key, no key
// has more items than its number (an item counts once for each key that one of its types conforms to), and there is at
// least one item. Anything else: no; so are rules of more than 512 keys and items of more than 256 different types,
// since both sides come from outside and every pair of them has to be looked at. Any thread.
bool evaluate(const value::Value& rule, const value::Dictionary& items);

}  // namespace activation
