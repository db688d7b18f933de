#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/dravo/records/ExtensionPoints.h"
#include "platform/dravo/records/HashIndex.h"
#include "platform/dravo/records/Records.h"

namespace dravo {

// Everything installed at one moment, with its indices. Immutable: readers share it while a change builds the next.
class Snapshot {
public:
    using Applications = std::vector<std::shared_ptr<const ApplicationRecord>>;
    using Bundles = std::vector<std::shared_ptr<const BundleRecord>>;
    using Numbers = std::vector<std::uint32_t>;  // places in plugIns(), ascending

    Snapshot() = default;  // nothing installed

    // In any order; of several records for one path the first counts.
    Snapshot(Applications applications, Bundles bundles, SdkParts& sdks);

    const Applications& applications() const { return applications_; }  // by path
    const Bundles& bundles() const { return bundles_; }                 // by path, those refused among them
    const PluginList& plugIns() const { return plugIns_; }              // by path, then identifier

    // Null: none.
    std::shared_ptr<const ApplicationRecord> application(const std::string& path) const;
    std::shared_ptr<const BundleRecord> bundle(const std::string& path) const;
    std::shared_ptr<const DVVeltoProxy> plugIn(const value::Uuid& uuid) const;

    // Those with one of the identifiers and with one of the extension point names; nothing: no constraint. The cost is
    // proportional to the names and to what goes by those that are distinct, and is charged.
    Numbers narrow(const std::optional<std::vector<std::string>>& identifiers,
                   const std::optional<std::vector<std::string>>& points) const;

    // Of one of the records in here, without a copy.
    static const value::Dictionary& entitlements(const DVVeltoProxy& plugIn) {
        return static_cast<const PlugInRecord&>(plugIn).bundle().facts().entitlements;
    }

    // Whether there are more names of extension points than are indexed: whatever has another one is a candidate for
    // every extension point.
    bool hasTooManyPoints() const { return points_.size() >= kRegistryPointsLimit; }

    PluginList plugInsWithin(const std::string& applicationPath) const;

    // What is installed at the path, or beneath it.
    struct Place {
        Applications applications;
        Bundles bundles;
    };
    Place at(const std::string& path) const;

    // The names of the directory's entries at which, or beneath which, something is installed. Ascending.
    std::vector<std::string> entriesOf(const std::string& directory) const;

private:
    const PlugInRecord& record(std::uint32_t number) const {
        return static_cast<const PlugInRecord&>(*plugIns_[number]);
    }
    void indexPoints(std::uint32_t number, const PlugInFacts& facts, SdkParts& sdks);
    Numbers withIdentifiers(const std::vector<std::string>& identifiers) const;
    std::vector<const Numbers*> atPoints(const std::vector<std::string>& points) const;
    std::vector<bool> unionOf(const std::vector<const Numbers*>& lists) const;  // by number

    Applications applications_;
    Bundles bundles_;
    PluginList plugIns_;
    HashIndex applicationPaths_;
    HashIndex bundlePaths_;
    HashIndex uuids_;
    HashIndex identifiers_;
    std::unordered_map<std::string, Numbers> points_;  // by match key
    Numbers anyPoint_;
};

// A snapshot as it was before, with the records that one is without.
struct Difference {
    Snapshot::Applications applicationsGone, applicationsNew;  // one that changed is in both
    Snapshot::Bundles bundlesGone, bundlesNew;
    PluginList plugInsGone, plugInsNew;  // of the bundles whose content or SDK differs: what observers are told
    bool empty() const {
        return applicationsGone.empty() && applicationsNew.empty() && bundlesGone.empty() && bundlesNew.empty();
    }
};

// Whether a bundle counts as another one when a directory with the same content has taken its place: for who keeps
// what goes by the directory, as tokens do. Not across a restart, after which nobody keeps anything, and in which a
// file system may have numbered everything anew.
enum class Replacements : std::uint8_t { count, pass };

Difference difference(const Snapshot& before, const Snapshot& after, Replacements replacements);

}  // namespace dravo
