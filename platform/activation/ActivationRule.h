#pragma once

#include "platform/value/Value.h"

// Activation rules: which items of a host a plug-in takes.
namespace activation {

// The rule is a boolean, or a dictionary from type identifier to the largest number of items; the host's items are
// {"items": [{"types": [...]}]}. Accepted when every item has a type that conforms to some key, no key has more items
// than its number, and there is at least one item. Anything else: no.
bool evaluate(const value::Value& rule, const value::Dictionary& items);

}  // namespace activation
