#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/file/Identity.h"
#include "platform/file/UniqueFd.h"
#include "platform/value/Value.h"

// Dravo, the application and plug-in registry: what is installed, under which UUID, inside which application. Its store
// in the state directory keeps UUIDs, registration dates and paths; the working set is in memory, indexed by UUID,
// path, identifier and extension point. Installs and removals on disk are noticed live.
namespace dravo {

struct BundleFiles;

// An installed application. Immutable but for the placeholder flag, which follows the disk.
class DVApplicationProxy {
public:
    virtual ~DVApplicationProxy() = default;
    virtual const std::string& bundlePath() const = 0;
    virtual std::optional<std::string> bundleIdentifier() const = 0;
    virtual std::optional<std::string> localizedName() const = 0;
    // Nothing for an application placed directly in Applications/.
    virtual std::optional<std::string> bundleContainerPath() const = 0;
    virtual bool isPlaceholder() const = 0;  // still being installed

    // The application's directory, or the container folder that it lies in (ENOENT without one): see
    // DVVeltoProxy::openBundle().
    virtual value::Result<file::UniqueFd> openBundle() const = 0;
    virtual value::Result<file::UniqueFd> openContainer() const = 0;
};

// What can contain a plug-in. The daemon relies on it being an application, and stops when it is not.
struct DVBundleProxy {
    std::shared_ptr<const DVApplicationProxy> application;  // null: some other kind of bundle
    std::string bundlePath;
};

// What the Info.plist of a plug-in's bundle says, as read just now.
struct DVBundleReading {
    value::Dictionary info;
    bool isAsKnown = false;  // it is what the registry's record was made of: what is made of it, too, stays good as
                             // long as the record
};

// What the registry's user has worked out of a plug-in's record, as bytes that mean something to it only.
struct DVImage {
    using IsSound = bool (*)(std::span<const std::byte> bytes);

    std::span<const std::byte> bytes;   // aligned like anything that is allocated
    std::shared_ptr<const void> owner;  // keeps them where they are
};

// All that a plug-in's record is made of. What was derived from one record holds for every other whose fingerprint is
// the same: digests that do not depend on the process, nor on when the files were written.
struct DVFingerprint {
    std::uint64_t info = 0;  // of Info.plist's bytes
    std::uint64_t entitlements = 0;
    std::uint64_t sdk = 0;  // of what its extension point registers: sdk::Part's
    friend bool operator==(const DVFingerprint&, const DVFingerprint&) = default;
};

// An installed plug-in: one record for each identifier of a bundle. Its original identifier is the bundle's, else its
// own. Immutable; dictionaries that the registry keeps may be read again from disk when they were dropped.
class DVVeltoProxy {
public:
    virtual ~DVVeltoProxy() = default;
    virtual const std::optional<std::string>& bundlePath() const = 0;

    // The very directory that the record is of (O_PATH), reached from its application's without following a link. A
    // path may lead elsewhere by now, and its inode number may be another directory's: whoever acts on a record acts on
    // this descriptor. ESTALE when another directory has taken its place or its application's, ELOOP when a link has.
    virtual value::Result<file::UniqueFd> openBundle() const = 0;
    virtual value::Result<DVBundleReading> readInfo() const = 0;  // beneath that directory
    virtual file::Identity bundleIdentity() const = 0;            // of it; it may be unknown

    virtual const value::Uuid& pluginUUID() const = 0;
    virtual const std::string& pluginIdentifier() const = 0;
    virtual const std::string& originalIdentifier() const = 0;
    virtual const std::string& bundleIdentifier() const = 0;
    virtual const std::string& bundleVersion() const = 0;
    virtual std::optional<value::Dictionary> pluginDictionary() const = 0;
    virtual value::Date registrationDate() const = 0;
    virtual bool onSystemPartition() const = 0;
    virtual std::optional<DVBundleProxy> containingBundle() const = 0;
    virtual std::optional<std::string> localizedName() const = 0;
    virtual std::optional<std::string> localizedShortName() const = 0;
    virtual const value::Dictionary& entitlements() const = 0;
    virtual DVFingerprint fingerprint() const = 0;  // as the registry knows them, not as they are on the disk by now

    // The data container is looked at, and made when it is missing: nothing while that cannot be done. Whether there
    // was one when anybody last looked is known without a look once it was there.
    virtual std::optional<std::string> dataContainerPath() const = 0;
    virtual bool hasDataContainer() const = 0;

    // The image that was last kept for the record, in this run or an earlier one, as long as nothing that it could have
    // been made of has changed: what the record says, its application, its bundle's files, its extension point's SDK,
    // the program. It may be gone at any time, and is then made again. Kept images are derived data in a file
    // (Images.h).
    virtual std::optional<DVImage> image(DVImage::IsSound isSound) const = 0;
    virtual void keepImage(std::span<const std::byte> bytes) const = 0;
};

using PluginList = std::vector<std::shared_ptr<const DVVeltoProxy>>;

// Told of installs and uninstalls, never while the registry holds a lock, on the registry's own queue. An uninstall is
// announced before the record goes.
class DVWorkspaceObserver {
public:
    virtual ~DVWorkspaceObserver() = default;
    virtual void pluginsDidInstall(const PluginList& plugins) = 0;
    virtual void pluginsWillUninstall(const PluginList& plugins) = 0;
};

// Who asks for a registration. Whether its process is sandboxed is found out when it first matters, and once.
class Registrant {
public:
    explicit Registrant(std::function<bool()> isSandboxed) : ask_{std::move(isSandboxed)} {}
    bool isSandboxed() const {
        if (!known_) known_ = ask_();
        return *known_;
    }

private:
    const std::function<bool()> ask_;
    mutable std::optional<bool> known_;
};

// A bundle that is to be registered, by its canonical path.
struct Registration {
    std::string path;
    std::shared_ptr<const BundleFiles> files = nullptr;  // what was read of it beforehand, if anything was
};

// One that is to be so no longer, by the path or else by another under which it may be known.
struct Removal {
    std::string path;
    std::optional<std::string> otherwise = {};
};

// The registry workspace. Any thread; queries answer from memory.
class DVApplicationWorkspace {
public:
    // The shared default workspace: opens the store, takes its lock, brings the working set up to date with what is on
    // disk and starts watching, at the first call. An error says what prevents it (who holds the state directory).
    static value::Result<std::shared_ptr<DVApplicationWorkspace>> defaultWorkspace();

    // A workspace of its own, for tests and benchmarks that run several worlds in one process.
    static value::Result<std::shared_ptr<DVApplicationWorkspace>> open();

    virtual ~DVApplicationWorkspace() = default;

    // Held weakly. What came or went while nobody watched is announced to the first observer; the first scan of an
    // empty store is not.
    virtual void addObserver(const std::shared_ptr<DVWorkspaceObserver>& observer) = 0;

    // In a stable order: by path, then identifier.
    virtual std::optional<PluginList> installedPlugins() const = 0;

    // The plug-ins with one of the identifiers and at one of the extension points (nothing: no constraint; an empty
    // list admits none) that the filter accepts, in the order of installedPlugins(). Texts are compared as rules are,
    // runs of digits by value; an extension point may go by more names than the rules will find. The filter is called
    // on the caller's thread, without a lock.
    using Filter = std::function<bool(const std::string& identifier, const value::Dictionary& entitlements)>;
    virtual std::optional<PluginList> plugins(const std::optional<std::vector<std::string>>& identifiers,
                                              const std::optional<std::vector<std::string>>& extensionPoints,
                                              const std::optional<std::string>& version,
                                              const Filter& filter) const = 0;

    virtual std::shared_ptr<const DVVeltoProxy> plugin(const value::Uuid& uuid) const = 0;  // null: none

    // Paths here and below are canonical (file::canonicalPath): they are compared, and not resolved again.
    // A plug-in is the first of its bundle.
    virtual std::shared_ptr<const DVVeltoProxy> pluginAtPath(const std::string& path) const = 0;
    virtual std::shared_ptr<const DVApplicationProxy> applicationAtPath(const std::string& path) const = 0;
    virtual PluginList pluginsOf(const DVApplicationProxy& application) const = 0;

    // Registration of bundles by path, kept over restarts; false when there is no plug-in there, or nothing to remove,
    // or it could not be saved (nothing has changed then). What lies in no application of the volumes, and not where
    // the system volume has its plug-ins, is taken only from who is not sandboxed, and so could put it there; the
    // nearest directory above it that is called an application then counts as one. All return when it is on disk and
    // has been announced, so an observer must not call them. Those that take a list go through it in its order up to
    // the first that fails, save and announce those before it together, and answer how many these are.
    virtual std::size_t registerPlugins(std::span<const Registration> bundles, const Registrant& registrant) = 0;
    bool registerPlugin(std::string path, const Registrant& registrant) {
        const Registration one{std::move(path)};
        return registerPlugins({&one, 1}, registrant) == 1;
    }
    virtual std::size_t unregisterPlugins(std::span<const Removal> bundles) = 0;
    bool unregisterPlugin(std::string path) {
        const Removal one{std::move(path)};
        return unregisterPlugins({&one, 1}) == 1;
    }

    virtual void clearSchemaCaches() = 0;  // drops the dictionaries that the registry keeps
};

}  // namespace dravo
