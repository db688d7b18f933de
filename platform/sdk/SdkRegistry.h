#pragma once

#include <optional>
#include <string>

#include "platform/value/Value.h"

// The extension SDK registry: SDKs/<extension point>.plist on the system volume. Entries are kept: one stat tells that
// a file is unchanged, a changed one is read anew.
//
// Threading: any thread.
namespace sdk {

// The entry registered for an extension point; nothing when there is none (a name with a separator or a leading dot is
// registered nowhere). An error, of which the log has one line for each change of the file, when there is one that
// cannot be read or is no dictionary: what it demands is not known then, and nobody is to decide as if it demanded
// nothing.
value::Result<std::optional<value::Dictionary>> entry(const std::string& extensionPoint);

// The directory that the environment variable VTTEST_SDK names; nothing when it is not set, or empty.
std::optional<std::string> testDirectory();

// Reads the file of exactly that name in a directory given instead of the registry, under the same check of the name.
// What cannot be read there is as good as none.
std::optional<value::Dictionary> entryIn(const std::string& directory, const std::string& extensionPoint);

}  // namespace sdk
