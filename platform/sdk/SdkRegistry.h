#pragma once

#include <optional>
#include <string>

#include "platform/value/Value.h"

// The extension SDK registry: SDKs/<extension point>.plist on the system volume. Entries are kept: one stat tells that
// a file is unchanged, a changed one is read anew. A file that is no property-list dictionary is as good as none and
// gets one log line for each change of it.
//
// Threading: any thread.
namespace sdk {

// The entry registered for an extension point, or nothing. A name with a separator or a leading dot is registered
// nowhere.
std::optional<value::Dictionary> entry(const std::string& extensionPoint);

// Reads the file of exactly that name in a directory given instead of the registry, under the same check of the name.
std::optional<value::Dictionary> entryIn(const std::string& directory, const std::string& extensionPoint);

}  // namespace sdk
