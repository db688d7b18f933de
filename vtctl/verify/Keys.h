#pragma once

#include <cstdint>
#include <set>
#include <span>
#include <string>

#include "platform/value/Value.h"
#include "vtctl/verify/Rules.h"

// The keys that the system reads of bundles, as doc/plugin.md and vtd-bundle(5) list them.
namespace verify {

enum class Level : std::uint8_t { bundle, plugIn, attributes, service, plugInEntitlements, hostEntitlements };

// Kinds that a key may have, as bits.
enum Kind : std::uint8_t { kString = 1, kNumber = 2, kBoolean = 4, kArray = 8, kDictionary = 16, kAny = 31, kNone = 0 };

struct Key {
    Level level;
    const char* name;
    std::uint8_t kinds;  // kNone: it may not be there at all
    Severity ifWrong;    // of another kind
};

std::span<const Key> keys();
const Key* findKey(Level level, const std::string& name);

std::set<std::string> namesAt(Level level);
const char* nameOf(Level level);                // as people call the dictionary
std::string kindsOf(const Key& key);            // "string or number"
std::string kindOf(const value::Value& value);  // "a string"
std::uint8_t bitOf(const value::Value& value);  // 0: data, a date

}  // namespace verify
