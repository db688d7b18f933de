#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/dravo/BundleFiles.h"
#include "platform/dravo/records/ExtensionPoints.h"
#include "platform/dravo/records/Records.h"
#include "platform/dravo/records/Snapshot.h"
#include "platform/dravo/watch/Watcher.h"
#include "platform/file/UniqueFd.h"

namespace dravo {

// A directory whose entries are applications (or containers of one), or plug-ins of the system volume.
struct Root {
    enum class Holds : std::uint8_t { applications, plugIns };
    std::string path;
    std::string volume;  // links are followed as long as they stay on it
    Holds holds = Holds::applications;
    bool onSystemVolume = false;
};

// The roots of the user and the system volume; those that do not exist are among them.
std::vector<Root> installationRoots();

// Whether the canonical path lies in a folder of the volumes' Applications/ that is an application, or is an entry of
// the system volume's PlugIns/.
bool liesWhereInstalled(const std::string& path);

// What one topic (an entry of a root, a registered path) has.
struct Finding {
    Snapshot::Applications applications;
    Snapshot::Bundles bundles;
    std::uint64_t look = 0;  // the number of the look that saw it last
    bool empty() const { return applications.empty() && bundles.empty(); }
    void doubtPlaceholders() const {
        for (const auto& application : applications) application->doubtPlaceholder();
    }
};

// Looks at the disk and tells what is installed there. What is known and has not changed is not read again: its record
// is the very same one. Directories are opened step by step and links that lead out of where they may lead are not
// followed. Nothing here waits, throws or grows on account of what is found. Belongs to one queue.
class Scanner {
public:
    // The parts must outlive it.
    Scanner(std::shared_ptr<Surroundings> surroundings, SdkParts& sdks, std::int64_t lastRow)
        : surroundings_{std::move(surroundings)}, sdks_{sdks}, lastRow_{lastRow} {}

    // One scan of some places; says what is taken for known meanwhile. Everything below happens within one.
    class Pass {
    public:
        Pass(Scanner& scanner, std::shared_ptr<const Snapshot> known);
        ~Pass();
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;

    private:
        Scanner& scanner_;
    };

    // Whether the last call below met with an error that says nothing of what is installed (descriptors or memory are
    // lacking, a disk cannot be read): what it does not tell of may well be there.
    bool uncertain() const { return uncertain_; }

    // What was read of a bundle beforehand, for this pass.
    void take(std::shared_ptr<const BundleFiles> files) { given_ = std::move(files); }

    std::vector<std::string> entries(const Root& root);
    Finding entry(const Root& root, const std::string& name, Watcher::Look& look);
    Finding registered(const std::string& path, Watcher::Look& look);

private:
    struct Directory {
        file::UniqueFd descriptor;
        std::string path;      // canonical
        bool watched = false;  // from before it was opened
        explicit operator bool() const { return static_cast<bool>(descriptor); }
    };

    // Where a link may lead: beneath the boundary, but not into what is looked at on its own.
    struct Bounds {
        std::string within;
        std::string except;  // empty: nothing
    };

    std::optional<struct stat> statusOf(int parent, const std::string& name, const std::string& path);
    std::optional<BundleStamps> stampsOf(int parent, const std::string& name, const struct stat& directory,
                                         const std::string& path);
    int rootDirectory(const Root& root);
    Directory open(int parent, const std::string& name, const std::string& path, const Bounds& bounds);
    Directory openWatched(int parent, const std::string& name, const std::string& path, const Bounds& bounds,
                          Watcher::Look& look);
    Directory followLink(const std::string& path, const Bounds& bounds);
    std::vector<std::string> list(int directory, const std::string& path, std::size_t limit);
    void application(const Root& root, const Directory& directory, const std::optional<std::string>& container,
                     Watcher::Look& look, Finding& finding);
    std::shared_ptr<const ApplicationRecord> applicationRecord(int directory, const std::string& path,
                                                               const std::optional<std::string>& container);
    std::shared_ptr<const ApplicationRecord> applicationAround(const std::string& path);
    void plugIn(int parent, const std::string& name, BundlePlace place, const Bounds& bounds, Watcher::Look& look,
                Finding& finding);
    void bundle(int parent, const std::string& name, const struct stat& directory, BundlePlace place, Finding& finding);
    BundleFacts read(int directory, const std::string& path, const BundleStamps& stamps, const file::Identity& identity,
                     const BundleFacts* known);
    std::shared_ptr<const BundleRecord> bundleRecord(BundlePlace place, BundleFacts facts);
    void trouble(const std::string& path, int errorNumber);
    bool passesBy(const std::string& path, const value::Error& error);
    void complain(const std::string& path, const std::string& why);

    const std::shared_ptr<Surroundings> surroundings_;
    SdkParts& sdks_;
    std::int64_t lastRow_;
    bool uncertain_ = false;
    std::shared_ptr<const Snapshot> known_;
    std::shared_ptr<const BundleFiles> given_;
    std::string rootPath_;  // the root that is open for this pass
    file::UniqueFd root_;
    std::unordered_map<std::string, std::shared_ptr<const ApplicationRecord>> seen_;  // in this pass, by path
    std::set<std::string> complaints_;  // about what has no record to remember them; each is logged once
};

}  // namespace dravo
