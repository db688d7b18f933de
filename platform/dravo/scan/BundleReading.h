#pragma once

#include <string>

#include "platform/dravo/records/Facts.h"
#include "platform/dravo/scan/InfoFile.h"

namespace dravo {

// What the registry keeps of Info.plist: identifiers, version, names, extension points of each plug-in. Sets the
// refusal when the dictionary describes no plug-in. UUIDs and dates are left to the caller.
void describe(const InfoFile& info, BundleFacts& facts);

// A text that a bundle gives, when it is one of sensible length.
std::optional<std::string> sensibleText(const value::Dictionary& dictionary, const char* key);

// QFBundleDisplayName, else QFBundleName.
std::optional<std::string> displayName(const value::Dictionary& info);

}  // namespace dravo
