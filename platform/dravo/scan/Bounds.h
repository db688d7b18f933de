#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "platform/value/Value.h"

// What a bundle may claim of itself. Every discovery pays for what its candidates say, so what is beyond a bound never
// becomes a candidate: the bundle is as good as a broken one, and its refusal names the key and the number.
namespace dravo {

inline constexpr std::size_t kMultipleLimit = 1024;            // plug-ins in one bundle
inline constexpr std::size_t kDescriptionsLimit = 4U << 20U;   // bytes of Info.plist, encoded, times those plug-ins
inline constexpr std::size_t kComparedTextLimit = 64U << 10U;  // bytes of a text that rules may meet

// The first claim of an Info.plist that is beyond a bound, in words: a list anywhere in it of more than
// bundle::kListLimit elements; and of what rules compare (the top level, and the attributes of a plug-in) a text of
// more than kComparedTextLimit bytes, by itself or in a list, or a dictionary of more than bundle::kListLimit entries.
std::optional<std::string> excessOf(const value::Dictionary& info);

// Of a plug-in's entitlements, which are kept in memory: all of them together, and the lists.
inline constexpr std::size_t kEntitlementsLimit = 16U << 10U;  // bytes, encoded
std::optional<std::string> excessOfEntitlements(const value::Dictionary& entitlements);

}  // namespace dravo
