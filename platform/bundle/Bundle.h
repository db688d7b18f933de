#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/value/Value.h"

// The platform's bundle reader. A bundle is a directory with an Info.plist (a flat bundle: its support directory is the
// bundle itself).
namespace bundle {

// The keys of Info.plist that the platform itself reads.
inline constexpr char kIdentifierKey[] = "QFBundleIdentifier";
inline constexpr char kExecutableKey[] = "QFBundleExecutable";
inline constexpr char kVersionKey[] = "QFBundleVersion";
inline constexpr char kNameKey[] = "QFBundleName";
inline constexpr char kDisplayNameKey[] = "QFBundleDisplayName";
inline constexpr char kInfoFile[] = "Info.plist";
inline constexpr std::size_t kInfoLimit = std::size_t{4} << 20;  // a larger Info.plist is as good as none

// What a path given to open() is.
enum class PathKind { directory, executable };

// An opened bundle; its properties are empty when no bundle was recognised at the path. Info.plist is read when it is
// first asked for and then kept. Shared freely; reads from several threads are safe.
class Bundle {
public:
    // `executable`: walks up a bounded number of levels to a bundle whose QFBundleExecutable is this very file (same
    // device and inode); lying somewhere under a bundle is not enough. Never null.
    static std::shared_ptr<const Bundle> open(const std::string& path, PathKind kind);
    static std::shared_ptr<const Bundle> openMain();  // the running program's

    virtual ~Bundle() = default;

    virtual std::optional<std::string> bundlePath() const = 0;
    virtual std::optional<std::string> executablePath() const = 0;  // that QFBundleExecutable names inside the bundle
    virtual std::optional<std::string> supportPath() const = 0;
    virtual std::optional<value::Dictionary> infoDictionary() const = 0;  // nothing when unreadable, or no dictionary

    virtual void flushCache() const = 0;  // forgets what was read
};

// Where an executable named by QFBundleExecutable lies in a bundle, when the name is plain: no separator, not "." or
// "..".
std::optional<std::string> executableInBundle(const std::string& bundlePath, const value::Dictionary& info);

}  // namespace bundle
