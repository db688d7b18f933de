#pragma once

#include <optional>
#include <string>

#include "platform/value/Value.h"

// The extension SDK registry: SDKs/<extension point>.plist on the system volume. A changed file is read anew.
namespace sdk {

// The entry registered for an extension point, or nothing. A name with a separator or a leading dot is registered
// nowhere.
std::optional<value::Dictionary> entry(const std::string& extensionPoint);

// Reads the file of that name in a directory given instead of the registry, under the same check of the name.
std::optional<value::Dictionary> entryIn(const std::string& directory, const std::string& extensionPoint);

}  // namespace sdk
