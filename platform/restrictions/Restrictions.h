#pragma once

#include <cstdint>
#include <optional>

// The restrictions service: what the device's owner does not allow, in restrictions.plist of the config directory.
//
// Threading: any thread.
namespace restrictions {

inline constexpr char kFile[] = "restrictions.plist";
inline constexpr char kMaximumAppsRating[] = "maximum-apps-rating";

// The highest age rating that an application may have, on the platform's scale; nothing when none is in force (no file,
// or no such key in it). A file that is there but cannot be read, is no dictionary or holds something else than a
// number under the key restricts as far as can be: the maximum is then -1, below every rating, and the log says why
// once for each change of the file. Reads the file when it has changed; else costs a look at its directory entry.
std::optional<std::int64_t> maximumAppsRating();

}  // namespace restrictions
