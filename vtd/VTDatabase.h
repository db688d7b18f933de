#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "Velto/VTAtomic.h"
#include "platform/dravo/Dravo.h"
#include "platform/logging/Log.h"
#include "platform/queue/SerialQueue.h"
#include "platform/value/Value.h"
#include "vtd/RecordNotes.h"
#include "vtd/VTDAnnotationSource.h"
#include "vtd/rules/Rules.h"

class BundleInfo;
class VTDAnnotationStore;
class VTDPlugIn;

// Told about plug-ins about to be uninstalled, after the database has dropped their records and left its own queue.
class VTDatabaseDelegate {
public:
    virtual ~VTDatabaseDelegate() = default;
    virtual void removedPlugIns(const dravo::PluginList& plugIns) = 0;
};

// The daemon's view of the installed plug-ins: turns the registry's records into the daemon's own, keeps those it has
// built in a bounded cache, answers lookups, forwards registrations, and owns the one annotation store.
//
// Ownership: the database owns its store and its cache; the cache owns the records, which stay valid for as long as
// somebody uses them. The delegate is held weakly. A database is always owned by a shared pointer.
// Threading: the cache and the annotation store are touched only on the serial queue "VTDatabase" (_sync). Every
// operation enters it by itself and must not be called from it, but for those said to be "on _sync", which check that
// they are there. Records are built on _sync: other lookups wait meanwhile.
// Errors: a plug-in that makes no record is logged, once for the registry's record, and absent from every result; an
// unknown UUID or path is logged and gives nothing. A registry that breaks its contract stops the daemon.
class VTDatabase : public dravo::DVWorkspaceObserver,
                   public VTDAnnotationSource,
                   public std::enable_shared_from_this<VTDatabase> {
public:
    using Cache = std::unordered_map<value::Uuid, std::shared_ptr<VTDPlugIn>>;
    using PlugIns = std::vector<std::shared_ptr<VTDPlugIn>>;

    // A database by itself, observing the workspace; in the daemon the server is the database. Without a path the store
    // lies in its default place. The annotation file may be another daemon's: that is an error.
    static value::Result<std::shared_ptr<VTDatabase>> initWithDatabase(
        const std::optional<std::string>& path, std::shared_ptr<dravo::DVApplicationWorkspace> workspace);

    ~VTDatabase() override;
    VTDatabase(const VTDatabase&) = delete;
    VTDatabase& operator=(const VTDatabase&) = delete;

    // --- Lookups

    std::shared_ptr<VTDPlugIn> plugInForProxy(const std::shared_ptr<const dravo::DVVeltoProxy>& proxy);

    // These say in the log why they find nothing, each time.
    std::shared_ptr<VTDPlugIn> findPlugIn(const value::Uuid& uuid);
    std::shared_ptr<VTDPlugIn> findPlugInAtPath(const std::string& path);

    // The candidates of a discovery request: each plug-in once, in the registry's order. A pre-selection by those rules
    // that name identifiers, extension points and elections literally; leaves out what the rules accept only where the
    // election filter is narrower than they are (it compares the low byte, as text). Nothing when the registry has no
    // list.
    //
    // How long it takes to make records of files is up to who wrote these: where there are many to make, it is done in
    // several turns. As long as the search is not over nothing is answered, and it is to be asked again, later. What
    // changes faster than it can be read is left out in the end.
    struct Search {
        bool isOver = false;
        std::size_t next = 0;  // candidate whose record may have to be made
        unsigned passes = 0;   // over all of them, so far
    };
    std::optional<PlugIns> findPlugIns(const rules::Rules& rules, Search& search);

    // Whether the record is of what is installed now: its directory is still that directory, and the registry has
    // neither announced that the plug-in goes nor made another record since. For whoever acts on a record; what cannot
    // be looked at counts as there.
    bool isCurrent(const VTDPlugIn& plugIn) const;

    // A discovery left the plug-in out for what it costs: said once for the registry's record.
    void noteCostlyPlugIn(const VTDPlugIn& plugIn);

    // Nothing, and never an empty list, when there is no application at the path or it has no plug-ins.
    std::optional<PlugIns> plugInsWithinApplication(const std::string& path);

    // --- Registration

    // In the list's order up to the first that fails: which one, and why. Those before it are registered, or removed,
    // and a list of any length is saved and announced as one change.
    struct Failure {
        std::size_t place;
        value::Error error;
    };
    [[nodiscard]] std::optional<Failure> addPlugIn(std::span<const dravo::Registration> bundles,
                                                   const dravo::Registrant& registrant);
    [[nodiscard]] std::optional<Failure> removePlugIn(std::span<const dravo::Removal> bundles);

    // --- Annotations

    std::optional<value::Dictionary> annotationForPlugIn(const VTDPlugIn& plugIn) override;

    // A round of one change (VTDAnnotationRound.h): merges into what is there, or without an annotation removes the
    // record; saves, and posts the change. What cannot be saved is logged and stands in memory; an error is only what
    // would grow beyond what is stored.
    [[nodiscard]] std::optional<value::Error> setAnnotation(const std::optional<value::Dictionary>& annotation,
                                                            const VTDPlugIn& plugIn);

    // Saves what was set, by whomever, since the last save. Costs one load when there is nothing.
    void saveAnnotations();

    // --- On _sync

    // What was refused before is refused again without a word, nor a look at the bundle.
    std::shared_ptr<VTDPlugIn> createPlugInForProxy(const std::shared_ptr<const dravo::DVVeltoProxy>& proxy);
    std::shared_ptr<VTDPlugIn> createPlugInForProxy(const std::shared_ptr<const dravo::DVVeltoProxy>& proxy,
                                                    BundleInfo& bundleInfo);
    void purgeCachesToLimit(std::int32_t limit);  // empties the whole cache when it holds more than the limit

    // Elects, unless the user has chosen either way. To be saved at the end of the round that asked for the plug-in.
    // What is beyond what is stored is left out, and logged once.
    void autoElect(const VTDPlugIn& plugIn);

    const Cache& cache() const;
    void setCache(Cache cache);

    // --- The registry's callbacks, on its own queue

    void pluginsDidInstall(const dravo::PluginList& plugIns) override;
    void pluginsWillUninstall(const dravo::PluginList& plugIns) override;

    // --- Properties

    std::shared_ptr<VTDatabaseDelegate> delegate() const { return delegate_.load().lock(); }
    void setDelegate(const std::shared_ptr<VTDatabaseDelegate>& delegate) { delegate_.store(delegate); }
    std::uint32_t cacheLimit() const { return cacheLimit_.load(); }
    void setCacheLimit(std::uint32_t limit) { cacheLimit_.store(limit); }
    std::shared_ptr<dravo::DVApplicationWorkspace> workspace() const { return workspace_.load(); }
    void setWorkspace(std::shared_ptr<dravo::DVApplicationWorkspace> workspace) {
        workspace_.store(std::move(workspace));
    }
    std::shared_ptr<VTDAnnotationStore> annotations() const { return annotations_.load(); }
    void setAnnotations(std::shared_ptr<VTDAnnotationStore> annotations) { annotations_.store(std::move(annotations)); }
    std::shared_ptr<queue::SerialQueue> _sync() const { return sync_.load(); }
    void set_sync(std::shared_ptr<queue::SerialQueue> queue) { sync_.store(std::move(queue)); }

protected:
    VTDatabase(std::shared_ptr<VTDAnnotationStore> annotations,
               std::shared_ptr<dravo::DVApplicationWorkspace> workspace);

    // The last step of construction, once a shared pointer owns the object: callbacks may arrive from then on.
    void observeWorkspace();

private:
    void checkOnSync(const char* operation) const;
    bool isDeparting(const std::shared_ptr<const dravo::DVVeltoProxy>& proxy) const;  // on _sync
    std::shared_ptr<VTDPlugIn> plugInForProxy(const std::shared_ptr<const dravo::DVVeltoProxy>& proxy,
                                              BundleInfo& bundleInfo);
    std::shared_ptr<VTDPlugIn> buildPlugIn(const std::shared_ptr<const dravo::DVVeltoProxy>& proxy,
                                           BundleInfo& bundleInfo, logging::Transcript::Writing writing);

    // Makes the images that are missing, from the place in the list on.
    void makeImages(std::shared_ptr<const dravo::PluginList> plugIns, std::size_t begin);

    VTAtomic<std::weak_ptr<VTDatabaseDelegate>> delegate_;
    VTAtomic<std::uint32_t> cacheLimit_{0};
    VTAtomic<std::shared_ptr<dravo::DVApplicationWorkspace>> workspace_;
    VTAtomic<std::shared_ptr<VTDAnnotationStore>> annotations_;
    VTAtomic<std::shared_ptr<queue::SerialQueue>> sync_;

    // On _sync.
    Cache cache_;
    RecordNotes notes_;
    std::atomic<std::uint64_t> made_ = 0;  // records, of files
    bool leavesElectionsOut_ = false;      // the last automatic election was refused
    // Announced as going but still known to the registry: a record built of one now is not kept, since nobody would
    // announce again that it is stale.
    std::unordered_map<value::Uuid, std::weak_ptr<const dravo::DVVeltoProxy>> departing_;
};
