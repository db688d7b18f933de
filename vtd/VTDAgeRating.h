#pragma once

#include <cstdint>
#include <string>

inline constexpr std::int64_t kUnknownAgeRating = -1;

// The age-rating rank in the metadata that the store left beside an application (JorunMetadata.plist in the
// application's container directory, open here and lying at that path), or kUnknownAgeRating when there is none or it
// makes no sense. A file that has not changed is not read again; a
// malformed one is logged once for each change of it. What it costs is charged. Any thread.
std::int64_t ageRatingInContainer(int containerDirectory, const std::string& containerPath);
