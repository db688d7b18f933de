#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/dravo/Dravo.h"
#include "platform/dravo/records/Facts.h"
#include "platform/dravo/records/SchemaCache.h"
#include "platform/dravo/store/Images.h"

// The registry's records, shared between the snapshots and whoever asked for them. Immutable but for what is known of
// placeholders and data containers.
namespace dravo {

// What the records of one workspace share.
struct Surroundings {
    Surroundings(std::string containers, std::string imageFile)
        : containersPath{std::move(containers)}, images{std::move(imageFile)} {}

    const std::string containersPath;
    SchemaCache schemas;
    Images images;
};

class ApplicationRecord final : public DVApplicationProxy {
public:
    ApplicationRecord(std::string path, ApplicationFacts facts) : path_{std::move(path)}, facts_{std::move(facts)} {}

    const ApplicationFacts& facts() const { return facts_; }

    const std::string& bundlePath() const override { return path_; }
    std::optional<std::string> bundleIdentifier() const override { return facts_.identifier; }
    std::optional<std::string> localizedName() const override { return facts_.name; }
    std::optional<std::string> bundleContainerPath() const override { return facts_.containerPath; }
    bool isPlaceholder() const override;  // looks at the disk only while the answer is unknown
    value::Result<file::UniqueFd> openBundle() const override;
    value::Result<file::UniqueFd> openContainer() const override;

    // The registry's, on its queue. What is known must be watched from before it was looked at.
    void lookForPlaceholder() const;
    void doubtPlaceholder() const { placeholder_.store(Placeholder::unknown, std::memory_order_relaxed); }

private:
    // Whether the application is still being installed, as far as the registry can tell without looking at the disk.
    enum class Placeholder : std::uint8_t {
        unknown,  // nobody watches its directory, or something in it has changed since
        absent,
        present,
    };

    Placeholder placeholderOnDisk() const;

    const std::string path_;
    const ApplicationFacts facts_;
    mutable std::atomic<Placeholder> placeholder_{Placeholder::unknown};  // what changes without making another record
};

class BundleRecord;

// One plug-in of a bundle; lives inside its bundle's record.
class PlugInRecord final : public DVVeltoProxy {
public:
    PlugInRecord(const BundleRecord& bundle, const PlugInFacts& facts) : bundle_{bundle}, facts_{facts} {}

    const BundleRecord& bundle() const { return bundle_; }
    const PlugInFacts& facts() const { return facts_; }

    const std::optional<std::string>& bundlePath() const override;
    value::Result<file::UniqueFd> openBundle() const override;
    value::Result<DVBundleReading> readInfo() const override;
    file::Identity bundleIdentity() const override;
    const value::Uuid& pluginUUID() const override { return facts_.uuid; }
    const std::string& pluginIdentifier() const override { return facts_.identifier; }
    const std::string& originalIdentifier() const override;
    const std::string& bundleIdentifier() const override;
    const std::string& bundleVersion() const override;
    std::optional<value::Dictionary> pluginDictionary() const override;
    value::Date registrationDate() const override { return {facts_.registered}; }
    bool onSystemPartition() const override;
    std::optional<DVBundleProxy> containingBundle() const override;
    std::optional<std::string> localizedName() const override;
    std::optional<std::string> localizedShortName() const override;
    const value::Dictionary& entitlements() const override;
    DVFingerprint fingerprint() const override;
    std::optional<std::string> dataContainerPath() const override;
    bool hasDataContainer() const override;
    std::optional<DVImage> image(DVImage::IsSound isSound) const override;
    void keepImage(std::span<const std::byte> bytes) const override;

private:
    std::size_t index() const;  // in its bundle
    Images::Key imageKey() const;

    const BundleRecord& bundle_;
    const PlugInFacts& facts_;
};

// What does not come from the bundle's own files.
struct BundlePlace {
    std::string path;  // canonical
    bool onSystemVolume = false;
    std::shared_ptr<const ApplicationRecord> application;  // null: not inside one
};

// A bundle's directory as last read, with its plug-ins; without any when it was refused.
class BundleRecord {
public:
    BundleRecord(BundlePlace place, BundleFacts facts, std::shared_ptr<Surroundings> surroundings);
    BundleRecord(const BundleRecord&) = delete;
    BundleRecord& operator=(const BundleRecord&) = delete;

    const std::string& path() const { return *path_; }
    const std::optional<std::string>& optionalPath() const { return path_; }
    bool onSystemVolume() const { return onSystemVolume_; }
    const std::shared_ptr<const ApplicationRecord>& application() const { return application_; }
    const BundleFacts& facts() const { return facts_; }
    value::Result<file::UniqueFd> open() const;  // see DVVeltoProxy::openBundle()
    Surroundings& surroundings() const { return *surroundings_; }
    const std::vector<PlugInRecord>& plugIns() const { return plugIns_; }  // by identifier
    BundlePlace place() const { return {path(), onSystemVolume_, application_}; }

    // Whether the plug-in at that place has its data container, as far as anybody has seen.
    bool hasContainer(std::size_t index) const { return hasContainer_[index].load(std::memory_order_relaxed); }
    void setHasContainer(std::size_t index, bool is = true) const {
        hasContainer_[index].store(is, std::memory_order_relaxed);
    }

    // Where the image of the plug-in at that place is.
    Images::Place& imagePlace(std::size_t index) const { return imagePlaces_[index]; }

private:
    const std::optional<std::string> path_;
    const bool onSystemVolume_;
    const std::shared_ptr<const ApplicationRecord> application_;
    const BundleFacts facts_;
    const std::shared_ptr<Surroundings> surroundings_;
    std::vector<PlugInRecord> plugIns_;
    const std::unique_ptr<std::atomic<bool>[]> hasContainer_;
    const std::unique_ptr<Images::Place[]> imagePlaces_;
};

// A plug-in's record as it is handed out: keeps its bundle's record alive.
std::shared_ptr<const DVVeltoProxy> proxy(const std::shared_ptr<const BundleRecord>& bundle, std::size_t index);

// Whether two readings of a bundle would look the same to everybody but the registry; stamps do not count, and an
// SDK that is not known counts as the same.
bool sameContent(const ApplicationRecord& a, const ApplicationRecord& b);
bool sameContent(const BundleRecord& a, const BundleRecord& b);

// Whether both are of one directory in one application's, and not of others that have taken their place. What is not
// known counts as the same.
bool sameDirectory(const BundleRecord& a, const BundleRecord& b);

// Where a record of either kind is, and what it goes by in lists.
inline const std::string& pathOf(const ApplicationRecord& application) {
    return application.bundlePath();
}
inline const std::string& pathOf(const BundleRecord& bundle) {
    return bundle.path();
}

}  // namespace dravo
