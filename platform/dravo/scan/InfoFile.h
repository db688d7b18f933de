#pragma once

#include <cstdint>

#include "platform/file/File.h"
#include "platform/value/Value.h"

namespace dravo {

// The keys by which a bundle describes its plug-ins.
inline constexpr char kPlugInKey[] = "KXExtension";
inline constexpr char kMultipleKey[] = "Multiple";
inline constexpr char kIdentifierKey[] = "KXExtensionIdentifier";
inline constexpr char kExtensionPointKey[] = "KXExtensionPointIdentifier";
inline constexpr char kAttributesKey[] = "KXExtensionAttributes";
inline constexpr char kPointNameKey[] = "KXExtensionPointName";

struct InfoFile {
    value::Dictionary dictionary;
    std::uint64_t digest = 0;  // of the file's bytes (digest::fnv1a)
    file::Stamp stamp;         // of the file that was read
    bool isSettled = false;    // of that stamp, when it was taken
};

// Info.plist of the bundle whose directory is open here: a regular file of bounded size, never reached through a link.
value::Result<InfoFile> readInfoFile(int bundleDirectory);

}  // namespace dravo
