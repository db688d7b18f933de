#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/bundle/Bundle.h"
#include "platform/file/File.h"
#include "platform/file/Identity.h"
#include "platform/value/Value.h"

// What the registry knows of a bundle without looking at the disk: kept compactly in memory, and in the store's rows.
namespace dravo {

// Bounds on what is kept of a bundle, beside those of Bounds.h.
inline constexpr std::size_t kTextLimit = bundle::kNameLimit;  // bytes of an identifier, a name, a version
inline constexpr std::size_t kPointNamesLimit = 64;            // names of one plug-in's extension point
inline constexpr std::size_t kRegistryPointsLimit = 65'536;    // different names of extension points, of all plug-ins
inline constexpr std::size_t kEntriesLimit = 100'000;          // entries of a directory
inline constexpr std::size_t kContainerEntriesLimit = 1000;    // entries of an application's own container folder

// A stamp that no file has: what was read must be read again, because it was too fresh for its stamp to be trusted.
inline constexpr file::Stamp kUntrusted{.size = -1};

struct ApplicationFacts {
    std::int64_t row = 0;  // in the store
    std::optional<std::string> containerPath;
    std::optional<std::string> identifier;
    std::optional<std::string> name;
    file::Stamp info;  // of Info.plist; all zeroes when there is none
    file::Identity identity;
};

// One plug-in of a bundle.
struct PlugInFacts {
    value::Uuid uuid;
    std::string identifier;
    double registered = 0;                      // seconds since 1970
    std::optional<std::string> extensionPoint;  // its KXExtensionPointIdentifier
    std::vector<std::string> pointNames;        // what the bundle has under KXExtensionPointName
    bool anyPoint = false;                      // too many names to keep: a candidate for every extension point
    std::optional<std::uint64_t> sdk;  // the digest of its SDK (sdk::Part); nothing: stored before it was noted
};

struct BundleStamps {
    file::Stamp directory;
    file::Stamp info;
    file::Stamp entitlements;  // all zeroes when there is no such file
    friend bool operator==(const BundleStamps&, const BundleStamps&) = default;
};

struct BundleFacts {
    std::int64_t row = 0;  // in the store
    BundleStamps stamps;
    file::Identity identity;   // of the directory; unknown in what an earlier version has stored
    std::uint64_t digest = 0;  // of the bytes of Info.plist
    std::string identifier;    // empty when it has none
    std::string version;       // likewise
    std::optional<std::string> displayName;
    std::optional<std::string> shortName;
    value::Dictionary entitlements;
    std::string refusal;  // why the bundle holds no plug-in, when it does not
    std::string remark;   // what else is wrong with it; logged like a refusal, once for each change
    std::vector<PlugInFacts> plugIns;
};

}  // namespace dravo
