#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "platform/file/UniqueFd.h"
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
inline constexpr std::size_t kInfoLimit = std::size_t{1} << 20;  // a larger Info.plist is as good as none
inline constexpr std::size_t kInfoValues = 50'000;               // and so is one of more values

// What a path given to open() is.
enum class PathKind { directory, executable };

// An opened bundle; its properties are empty when no bundle was recognised at the path: when there is no Info.plist, or
// what bears that name is a link, a pipe, too large or unreadable. Info.plist is read when it is first needed and then
// kept; what was not recognised is looked at again the next time. Shared freely; any thread may ask.
class Bundle {
public:
    // `executable`: walks up a bounded number of levels to a bundle whose QFBundleExecutable is this very file (same
    // device and inode); lying somewhere under a bundle is not enough. Never null.
    static std::shared_ptr<const Bundle> open(const std::string& path, PathKind kind);
    static std::shared_ptr<const Bundle> openMain();  // the running program's

    // Of the directory that is open here, whatever lies at its path by now: its files are read beneath the descriptor.
    static std::shared_ptr<const Bundle> openAt(file::UniqueFd directory, std::string path);

    virtual ~Bundle() = default;

    virtual std::optional<std::string> bundlePath() const = 0;
    virtual std::optional<std::string> executablePath() const = 0;  // see executableInBundle
    virtual std::optional<std::string> supportPath() const = 0;
    virtual std::optional<value::Dictionary> infoDictionary() const = 0;  // nothing when Info.plist holds none

    virtual void flushCache() const = 0;  // forgets what was read
};

// Where an executable named by QFBundleExecutable lies in a bundle, when the name is plain: not empty, no separator, no
// NUL byte, not "." or "..". Whether there is such a file, and of what kind, is not looked at.
std::optional<std::string> executableInBundle(const std::string& bundlePath, const value::Dictionary& info);

// What names a bundle to the services that keep something for it: QFBundleIdentifier, and QFBundleVersion (a number as
// its text). Empty when there is none, or none of at most kNameLimit bytes without a NUL.
inline constexpr std::size_t kNameLimit = 1024;
std::string identifierOf(const value::Dictionary& info);
std::string versionOf(const value::Dictionary& info);

}  // namespace bundle
