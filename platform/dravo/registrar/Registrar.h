#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "platform/dravo/records/DataContainers.h"
#include "platform/dravo/records/ExtensionPoints.h"
#include "platform/dravo/records/Snapshot.h"
#include "platform/dravo/registrar/Announcements.h"
#include "platform/dravo/scan/Scanner.h"
#include "platform/dravo/store/Store.h"
#include "platform/dravo/watch/Settling.h"
#include "platform/dravo/watch/Watcher.h"
#include "platform/lock/LockFile.h"
#include "platform/queue/SerialQueue.h"

namespace dravo {

// How changes on disk are noticed.
struct Noticing {
    bool watch = true;  // false: as if the system had no watches to give
    std::chrono::milliseconds pollPeriod{2000};
};

// Keeps what is known in step with what is on disk: looks, compares, announces, saves, publishes. Each change goes this
// way: will-uninstall is announced, the store is written, the new snapshot published, did-install announced. What could
// not be looked at for a reason that says nothing of it stays as it was known. What could not be saved is saved later,
// but for registrations: they are on the disk, or refused.
//
// Threading: all work is done on the registry's queue; snapshot() answers on any thread. The members that change
// something enter the queue and wait, so they must not be called from an observer.
class Registrar : public std::enable_shared_from_this<Registrar> {
public:
    // Takes the state directory's lock, reads the store, looks at the disk once; watching starts behind that.
    static value::Result<std::shared_ptr<Registrar>> open(const Noticing& noticing);

    // Ends all activity and gives the lock back. Afterwards only snapshot() may be called.
    void stop();

    std::shared_ptr<const Snapshot> snapshot() const;
    Announcements& announcements() { return *announcements_; }

    // See DVApplicationWorkspace.
    std::size_t registerPlugins(std::span<const Registration> bundles, const Registrant& registrant);
    std::size_t unregisterPlugins(std::span<const Removal> bundles);
    void clearSchemaCaches() { surroundings_->schemas.clear(); }

private:
    static constexpr std::chrono::seconds kFirstRetry{1};

    enum class Announce : std::uint8_t { changes, nothing };
    struct Registrations {
        std::vector<std::string> gone, fresh;
    };

    Registrar(const Noticing& noticing, lock::LockFile lock, Store::Opened opened, const std::string& state);

    [[nodiscard]] std::optional<value::Error> firstLook();
    void watch();
    void askForWatches();
    void poll();
    void pollIfBlind();
    void changed(const Topic& topic, std::string_view name);
    void markDirty(const Topic& topic);
    void markEverythingDirty();
    void lookSoon();
    void lookAgain();
    void lookAtEverything();
    void lookAt(const Topic& topic);
    void lookAtEntry(const Root& root, const std::string& name);
    void lookAtRegistered(const std::string& path);
    void noteFinding(const Topic& topic, Finding finding);
    bool passesBy(const Topic& topic);
    void addWhatIsKnown(const Topic& topic, Finding& finding);
    void retryLater();
    void lookAtSdks();
    void watchSdks();
    void forget(const Topic& topic);

    void apply(Announce announce, Replacements replacements = Replacements::count);
    void furnish(std::span<const std::shared_ptr<const BundleRecord>> bundles);
    void furnishFrom(std::size_t begin, const std::shared_ptr<const Snapshot>& snapshot);
    void forgetImages();
    void saveLater();
    [[nodiscard]] std::optional<value::Error> save(const Difference& changes, const Snapshot& after,
                                                   const Registrations& changed);
    [[nodiscard]] std::optional<value::Error> replaceStore(const std::string& why);
    std::size_t registerCanonical(std::span<const Registration> bundles);
    std::size_t unregisterCanonical(std::span<const Removal> bundles);
    void publish(std::shared_ptr<const Snapshot> snapshot);

    const Noticing noticing_;
    const std::string storePath_;
    const std::shared_ptr<queue::SerialQueue> queue_;
    const std::shared_ptr<queue::SerialQueue> compacting_;
    const std::shared_ptr<Announcements> announcements_;
    const std::shared_ptr<Surroundings> surroundings_;

    // Of the queue.
    std::optional<lock::LockFile> lock_;
    bool stopped_ = false;
    bool watchingBegan_ = false;    // and with it all that is left for behind the first answers
    std::unique_ptr<Store> store_;  // null when a damaged one could not be replaced
    bool isNew_;                    // the store was empty
    bool unsaved_ = false;          // a save failed: the next one writes everything
    std::set<std::string> registrations_;
    DataContainers containers_;
    SdkParts sdks_;
    std::set<Topic> sdkLinks_;  // what is watched for a link among the SDKs
    Scanner scanner_;
    std::vector<Root> roots_;
    std::map<Topic, Finding> findings_;  // entries before registered paths, so that theirs count first
    std::set<Topic> dirty_;
    bool everythingDirty_ = false;
    std::unique_ptr<Watcher> watcher_;
    Settling settling_;
    std::unique_ptr<queue::Timer> pollTimer_;
    std::unique_ptr<queue::Timer> retryTimer_;
    std::chrono::seconds retryDelay_{kFirstRetry};  // until the next look, should that fail again
    std::unique_ptr<queue::Timer> saveTimer_;
    std::uint64_t look_ = 0;  // counts the looks at everything

    mutable std::mutex mutex_;
    std::shared_ptr<const Snapshot> snapshot_;  // under the mutex
};

}  // namespace dravo
