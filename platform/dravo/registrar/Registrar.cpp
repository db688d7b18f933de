#include "platform/dravo/registrar/Registrar.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include "platform/dravo/registrar/Remembered.h"
#include "platform/effort/Effort.h"
#include "platform/file/Beneath.h"
#include "platform/file/File.h"
#include "platform/logging/Invariant.h"
#include "platform/logging/Log.h"
#include "platform/mounts/Mounts.h"
#include "platform/paths/Paths.h"
#include "platform/sdk/SdkRegistry.h"
#include "platform/text/Format.h"

namespace dravo {

namespace {

namespace fs = std::filesystem;

constexpr char kStoreName[] = "/Registry.db";
constexpr char kContainersName[] = "/containers";
constexpr std::size_t kDirtyLimit = 10'000;  // topics; past that one look at everything is cheaper
constexpr std::chrono::seconds kLongestRetry{60};
constexpr std::chrono::seconds kSaveAgain{10};
constexpr std::size_t kFurnishedInATurn = 32;
constexpr std::size_t kSdkLinksLimit = 1000;
constexpr std::uint64_t kUnitsAPlugIn = 50;  // in a table that is made anew
constexpr int kPollShare = 50;               // at most one part in so many of the time goes into polling

// The records of paths that the finding has none of.
template <typename Records>
void addWhereNew(const Records& records, Records& found) {
    for (const auto& record : records) {
        const bool isThere = std::any_of(found.begin(), found.end(),
                                         [&](const auto& other) { return pathOf(*other) == pathOf(*record); });
        if (!isThere) found.push_back(record);
    }
}

}  // namespace

value::Result<std::shared_ptr<Registrar>> Registrar::open(const Noticing& noticing) {
    const std::string& state = paths::directories().state;
    if (auto error = file::makeDirectories(state, 0700, file::Durability::synced)) return *error;
    auto lock = lock::LockFile::take(state + "/Registry.lock");
    if (!lock) return lock.error();
    auto opened = Store::open(state + kStoreName);
    if (!opened) return opened.error();
    const std::shared_ptr<Registrar> registrar{new Registrar{noticing, std::move(*lock), std::move(*opened), state}};
    if (auto error = registrar->queue_->sync([&] { return registrar->firstLook(); })) return *error;
    registrar->queue_->async([weak = registrar->weak_from_this()] {
        if (const auto self = weak.lock()) self->watch();
    });
    return registrar;
}

Registrar::Registrar(const Noticing& noticing, lock::LockFile lock, Store::Opened opened, const std::string& state)
    : noticing_{noticing},
      storePath_{state + kStoreName},
      queue_{std::make_shared<queue::SerialQueue>("dravo")},
      compacting_{std::make_shared<queue::SerialQueue>("dravo.images")},
      announcements_{std::make_shared<Announcements>(queue_)},
      surroundings_{std::make_shared<Surroundings>(state + kContainersName, state + "/Registry.images")},
      lock_{std::move(lock)},
      store_{std::move(opened.store)},
      isNew_{opened.contents.isNew},
      registrations_{opened.contents.registrations.begin(), opened.contents.registrations.end()},
      containers_{state + kContainersName},
      scanner_{surroundings_, sdks_, opened.contents.lastRow},
      settling_{queue_},
      snapshot_{remembered(std::move(opened.contents), surroundings_, sdks_)} {}

void Registrar::stop() {
    const auto end = [&] {
        stopped_ = true;
        watcher_.reset();
        settling_.rest();
        pollTimer_.reset();
        retryTimer_.reset();
        saveTimer_.reset();
        store_.reset();
        lock_.reset();
    };
    if (queue_->isCurrent()) {
        end();
    } else {
        queue_->sync(end);
    }
}

std::shared_ptr<const Snapshot> Registrar::snapshot() const {
    const std::lock_guard lock{mutex_};
    return snapshot_;
}

void Registrar::publish(std::shared_ptr<const Snapshot> snapshot) {
    const std::lock_guard lock{mutex_};
    snapshot_.swap(snapshot);  // the old one goes behind the lock
}

// Who is sandboxed could make a bundle anywhere that claims to be another's, but nobody would find it there. A file
// system that may never answer would sooner or later be asked by the registry itself.
std::size_t Registrar::registerPlugins(std::span<const Registration> bundles, const Registrant& registrant) {
    const auto isRefused = [&registrant](const Registration& bundle) {
        if (mounts::mayNeverAnswer(bundle.path)) {
            logging::notice(text::format("{} lies on a file system that may never answer", bundle.path));
            return true;
        }
        if (!liesWhereInstalled(bundle.path) && registrant.isSandboxed()) {
            logging::notice(
                text::format("{} lies in no application, and who asks to register it is sandboxed", bundle.path));
            return true;
        }
        return false;
    };
    const auto end = std::find_if(bundles.begin(), bundles.end(), isRefused);
    const auto taken = bundles.first(static_cast<std::size_t>(end - bundles.begin()));
    return taken.empty() ? 0 : queue_->sync([&] { return registerCanonical(taken); });
}

// Registrations go to the disk by themselves and first: when that fails nothing has happened yet, and nobody has been
// told anything. To save and to apply cost time for all that is installed, so both are done once for all of a list, and
// not at all for what brings nothing new, known or refused.
std::size_t Registrar::registerCanonical(std::span<const Registration> bundles) {
    std::vector<std::string> fresh;
    std::size_t before = 0;  // the first that is new
    bool isChanged = false;
    std::size_t done = 0;
    for (const Registration& bundle : bundles) {
        if (effort::isSpent()) break;
        const Topic topic{Topic::Kind::registered, bundle.path};
        const auto found = [&] {
            const auto finding = findings_.find(topic);
            return finding != findings_.end() ? finding->second : Finding{};
        };
        const Finding known = found();
        const bool isNew = registrations_.insert(bundle.path).second;
        {
            const Scanner::Pass pass{scanner_, snapshot()};
            scanner_.take(bundle.files);
            lookAtRegistered(bundle.path);
        }
        const Finding now = found();
        // A folder that merely lies in PlugIns/ may do without a description; who registers one by name means a
        // plug-in.
        const bool isPlugIn = !now.bundles.empty() && !now.bundles.front()->plugIns().empty() &&
                              now.bundles.front()->plugIns().front().pluginDictionary().has_value();
        if (isNew && !isPlugIn) {
            registrations_.erase(bundle.path);
            forget(topic);
        } else if (isNew) {
            if (fresh.empty()) before = done;
            fresh.push_back(bundle.path);
        } else if (now.applications != known.applications || now.bundles != known.bundles) {
            isChanged = true;
        }
        if (!isPlugIn) break;
        ++done;
    }
    if (!fresh.empty() && save({}, *snapshot(), {.gone = {}, .fresh = fresh})) {
        for (const std::string& path : fresh) {
            registrations_.erase(path);
            forget({Topic::Kind::registered, path});
        }
        fresh.clear();
        done = before;
    }
    if (isChanged || !fresh.empty()) apply(Announce::changes);
    return done;
}

std::size_t Registrar::unregisterPlugins(std::span<const Removal> bundles) {
    return queue_->sync([&] { return unregisterCanonical(bundles); });
}

std::size_t Registrar::unregisterCanonical(std::span<const Removal> bundles) {
    const auto known = [this](std::string path) {
        while (path.ends_with('/') || path.ends_with("/.")) path.pop_back();
        return registrations_.find(path);
    };
    std::vector<std::string> gone;
    std::size_t done = 0;
    for (const Removal& bundle : bundles) {
        auto at = known(bundle.path);
        if (at == registrations_.end() && bundle.otherwise) at = known(*bundle.otherwise);
        if (at == registrations_.end()) break;
        gone.push_back(*at);
        registrations_.erase(at);
        ++done;
    }
    if (gone.empty()) return 0;
    if (save({}, *snapshot(), {.gone = gone, .fresh = {}})) {
        registrations_.insert(gone.begin(), gone.end());
        return 0;
    }
    for (const std::string& path : gone) forget({Topic::Kind::registered, path});
    apply(Announce::changes);
    return done;
}

// Without descriptors nothing can be looked at, nor anybody be served: better not to start.
std::optional<value::Error> Registrar::firstLook() {
    lookAtEverything();
    if (retryTimer_ && !file::UniqueFd{::open("/", O_PATH | O_CLOEXEC)}) {
        return value::posixError(errno, "cannot look at what is installed");
    }
    apply(isNew_ ? Announce::nothing : Announce::changes, Replacements::pass);
    return {};
}

// Watches are placed, and data containers made, behind the first answers, for they take their time. The second look
// closes the gap: what changes before its directory is watched is seen by it, what changes later is noticed.
void Registrar::watch() {
    if (stopped_) return;
    watchingBegan_ = true;
    askForWatches();
    lookAtEverything();
    lookAtSdks();
    apply(Announce::changes);
    forgetImages();
    containers_.list();
    furnishFrom(0, snapshot());
    pollIfBlind();
}

// The watches themselves are asked for by looking at everything.
void Registrar::askForWatches() {
    if (watcher_) {
        watcher_->forgetExhaustion();
    } else if (noticing_.watch) {
        watcher_ = Watcher::create(
            queue_, [this](const Topic& topic, std::string_view name) { changed(topic, name); },
            [this] {
                markEverythingDirty();
                lookSoon();
            });
    }
}

void Registrar::pollIfBlind() {
    if (pollTimer_ || (watcher_ && !watcher_->exhausted())) return;
    logging::warning("the system has no more watches for files; installed plug-ins are looked at now and then");
    pollTimer_ = queue::after(noticing_.pollPeriod, queue_, [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->poll();
    });
}

void Registrar::poll() {
    if (stopped_) return;
    const auto start = std::chrono::steady_clock::now();
    askForWatches();
    markEverythingDirty();
    lookAgain();
    if (watcher_ && !watcher_->exhausted()) {
        logging::notice("installed plug-ins are watched again");
        pollTimer_.reset();
        return;
    }
    const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    pollTimer_ = queue::after(std::max(noticing_.pollPeriod, spent * kPollShare), queue_, [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->poll();
    });
}

void Registrar::changed(const Topic& topic, std::string_view name) {
    if (topic.kind != Topic::Kind::root) {
        markDirty(topic);
    } else if (name.empty()) {
        markEverythingDirty();
    } else if (name.front() != '.') {
        markDirty({Topic::Kind::entry, topic.path + "/" + std::string{name}});
    } else {
        return;
    }
    lookSoon();
}

// Until the next look, which waits for the changes to come to rest, placeholders are looked for when they are asked
// for.
void Registrar::markDirty(const Topic& topic) {
    INVARIANT(queue_->isCurrent());
    const auto finding = findings_.find(topic);
    if (topic.kind == Topic::Kind::entry && finding != findings_.end()) finding->second.doubtPlaceholders();
    dirty_.insert(topic);
    if (dirty_.size() > kDirtyLimit) markEverythingDirty();
}

void Registrar::markEverythingDirty() {
    if (std::exchange(everythingDirty_, true)) return;
    for (const auto& [topic, finding] : findings_) finding.doubtPlaceholders();
}

void Registrar::lookSoon() {
    settling_.note([weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->lookAgain();
    });
}

void Registrar::lookAgain() {
    if (stopped_) return;
    settling_.rest();
    const auto dirty = std::exchange(dirty_, {});
    if (std::exchange(everythingDirty_, false)) {
        lookAtEverything();
        lookAtSdks();
    } else {
        const Scanner::Pass pass{scanner_, snapshot()};
        for (const Topic& topic : dirty) lookAt(topic);
        const auto isSdk = [](const Topic& topic) { return topic.kind == Topic::Kind::sdk; };
        if (std::any_of(dirty.begin(), dirty.end(), isSdk)) lookAtSdks();
    }
    apply(Announce::changes);
    pollIfBlind();
}

void Registrar::lookAtEverything() {
    ++look_;
    roots_ = installationRoots();
    retryTimer_.reset();
    const auto known = snapshot();
    const Scanner::Pass pass{scanner_, known};
    for (const Root& root : roots_) {
        const Topic topic{Topic::Kind::root, root.path};
        Watcher::Look look{watcher_.get(), topic};
        look.towards(root.path);
        auto names = scanner_.entries(root);
        if (scanner_.uncertain()) {
            retryLater();
            names = known->entriesOf(root.path);
        }
        for (const std::string& name : names) lookAtEntry(root, name);
    }
    for (const std::string& path : registrations_) lookAtRegistered(path);
    std::vector<Topic> gone;
    for (const auto& [topic, finding] : findings_) {
        if (finding.look != look_) gone.push_back(topic);
    }
    for (const Topic& topic : gone) forget(topic);
}

// Ever less often, for some troubles last.
void Registrar::retryLater() {
    if (retryTimer_) return;
    retryTimer_ = queue::after(retryDelay_, queue_, [weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self || self->stopped_) return;
        self->markEverythingDirty();
        self->lookAgain();
    });
    retryDelay_ = std::min(retryDelay_ * 2, kLongestRetry);
}

void Registrar::lookAt(const Topic& topic) {
    switch (topic.kind) {
        case Topic::Kind::root: break;  // becomes entries, or everything
        case Topic::Kind::entry:
            for (const Root& root : roots_) {
                if (file::isBeneath(topic.path, root.path)) lookAtEntry(root, file::nameBeneath(topic.path, root.path));
            }
            // Those registered inside it share its application's record.
            for (const std::string& path : registrations_) {
                if (file::isBeneath(path, topic.path)) lookAtRegistered(path);
            }
            break;
        case Topic::Kind::registered:
            if (registrations_.contains(topic.path)) lookAtRegistered(topic.path);
            break;
        case Topic::Kind::sdk: break;  // all of them once
    }
}

void Registrar::lookAtEntry(const Root& root, const std::string& name) {
    const Topic topic{Topic::Kind::entry, root.path + "/" + name};
    if (passesBy(topic)) return;
    Watcher::Look look{watcher_.get(), topic};
    noteFinding(topic, scanner_.entry(root, name, look));
}

void Registrar::lookAtRegistered(const std::string& path) {
    const Topic topic{Topic::Kind::registered, path};
    if (passesBy(topic)) return;
    Watcher::Look look{watcher_.get(), topic};
    noteFinding(topic, scanner_.registered(path, look));
}

void Registrar::noteFinding(const Topic& topic, Finding finding) {
    if (scanner_.uncertain()) {
        retryLater();
        addWhatIsKnown(topic, finding);
        // What was not opened may not be watched. A registered bundle shares the record of an entry, or nobody watches
        // it.
        if (topic.kind == Topic::Kind::entry) finding.doubtPlaceholders();
    }
    INVARIANT(queue_->isCurrent() && topic.kind != Topic::Kind::root);
    if (finding.empty()) {
        findings_.erase(topic);
    } else {
        finding.look = look_;
        findings_.insert_or_assign(topic, std::move(finding));
    }
}

// Whether it is not to be looked at, since what is mounted there now may never answer: it stays as it was known.
bool Registrar::passesBy(const Topic& topic) {
    if (!mounts::mayNeverAnswer(topic.path)) return false;
    retryLater();
    Finding finding;
    addWhatIsKnown(topic, finding);
    if (finding.empty()) return true;
    // Whether it is still being installed is not looked for either: nobody doubts what was last seen.
    finding.look = look_;
    findings_.insert_or_assign(topic, std::move(finding));
    return true;
}

// Known from an earlier look, or since before the start from the store.
void Registrar::addWhatIsKnown(const Topic& topic, Finding& finding) {
    const auto known = findings_.find(topic);
    if (known != findings_.end()) {
        addWhereNew(known->second.applications, finding.applications);
        addWhereNew(known->second.bundles, finding.bundles);
    } else {
        const Snapshot::Place before = snapshot()->at(topic.path);
        addWhereNew(before.applications, finding.applications);
        addWhereNew(before.bundles, finding.bundles);
    }
}

// What a record was made of belongs to it: when an SDK is another, so are the records of its plug-ins.
void Registrar::lookAtSdks() {
    watchSdks();
    sdks_.refresh();
    for (auto& [topic, finding] : findings_) {
        for (auto& bundle : finding.bundles) {
            if (sdks_.areNotedIn(bundle->facts().plugIns)) continue;
            BundleFacts facts = bundle->facts();
            sdks_.note(facts.plugIns);
            bundle = std::make_shared<const BundleRecord>(bundle->place(), std::move(facts), surroundings_);
        }
    }
}

// The directories, and where a link leads out of them, the file at its end. Of a directory that is itself a link, the
// link besides.
void Registrar::watchSdks() {
    std::set<Topic> links;
    const auto watchEntry = [&](std::string name, const std::string& path) {
        const auto topic = links.insert({Topic::Kind::sdk, std::move(name)}).first;
        Watcher::Look{watcher_.get(), *topic}.entry(path);
    };
    for (const std::string& directory : sdk::directories()) {
        const Topic topic{Topic::Kind::sdk, directory};
        Watcher::Look{watcher_.get(), topic}.towards(directory);
        std::error_code error;
        if (fs::is_symlink(directory, error)) watchEntry(directory + "/.", directory);
        for (fs::directory_iterator at{directory, error}, end; !error && at != end && links.size() < kSdkLinksLimit;
             at.increment(error)) {
            const std::string link = at->path().string();
            std::error_code unknown;
            const auto target = at->is_symlink(unknown) ? file::finalPath(link) : value::posixError(EINVAL, link);
            if (target) watchEntry(link, *target);
        }
    }
    for (const Topic& gone : std::exchange(sdkLinks_, links)) {
        if (!links.contains(gone)) forget(gone);
    }
}

void Registrar::forget(const Topic& topic) {
    INVARIANT(queue_->isCurrent());
    findings_.erase(topic);
    const Watcher::Look look{watcher_.get(), topic};  // names nothing, and so lets go of everything
}

void Registrar::apply(Announce announce, Replacements replacements) {
    const auto before = snapshot();
    static_cast<void>(effort::take(before->plugIns().size() * kUnitsAPlugIn));
    Snapshot::Applications applications;
    Snapshot::Bundles bundles;
    for (const auto& [topic, finding] : findings_) {
        applications.insert(applications.end(), finding.applications.begin(), finding.applications.end());
        bundles.insert(bundles.end(), finding.bundles.begin(), finding.bundles.end());
    }
    auto after = std::make_shared<const Snapshot>(std::move(applications), std::move(bundles), sdks_);
    Difference changes = difference(*before, *after, replacements);
    INVARIANT(queue_->isCurrent() && before == snapshot());  // nobody else publishes
    if (sdks_.isStale()) retryLater();
    if (!retryTimer_) retryDelay_ = kFirstRetry;
    if (changes.empty()) return;
    if (after->hasTooManyPoints() && !before->hasTooManyPoints()) {
        logging::warning(text::format("{} names of extension points; not all are indexed", kRegistryPointsLimit));
    }
    if (announce == Announce::changes) announcements_->willUninstall(std::move(changes.plugInsGone));
    static_cast<void>(save(changes, *after, {}));  // what fails is logged, and done later
    if (watchingBegan_) furnish(changes.bundlesNew);
    const bool someGo = !changes.bundlesGone.empty();
    publish(std::move(after));
    if (someGo) forgetImages();
    if (announce == Announce::changes) announcements_->didInstall(std::move(changes.plugInsNew));
}

// Those of plug-ins that are gone, and with them, when it is worth it, their place in the file: on a queue of its own,
// for that takes as long as the disk does.
void Registrar::forgetImages() {
    const auto known = snapshot();
    surroundings_->images.forgetOthers([&](const value::Uuid& uuid) { return known->plugIn(uuid) != nullptr; });
    if (!surroundings_->images.isWorthCompacting()) return;
    compacting_->async([surroundings = surroundings_] {
        if (surroundings->images.isWorthCompacting()) surroundings->images.compact();
    });
}

// A container that cannot be made, or is not made yet, is tried again when somebody asks for it.
void Registrar::furnish(std::span<const std::shared_ptr<const BundleRecord>> bundles) {
    for (const auto& bundle : bundles) {
        for (std::size_t i = 0; i < bundle->plugIns().size(); ++i) {
            if (!bundle->hasContainer(i) && containers_.ensure(bundle->plugIns()[i].pluginIdentifier()))
                bundle->setHasContainer(i);
        }
    }
}

// A part at a time, so that who asks for a registration meanwhile need not wait for thousands.
void Registrar::furnishFrom(std::size_t begin, const std::shared_ptr<const Snapshot>& snapshot) {
    if (stopped_) return;
    const auto left = std::span{snapshot->bundles()}.subspan(begin);
    const std::size_t count = std::min(left.size(), kFurnishedInATurn);
    furnish(left.first(count));
    if (count == left.size()) {
        containers_.dropListing();
        return;
    }
    queue_->async([weak = weak_from_this(), next = begin + count, snapshot] {
        if (const auto self = weak.lock()) self->furnishFrom(next, snapshot);
    });
}

std::optional<value::Error> Registrar::save(const Difference& changes, const Snapshot& after,
                                            const Registrations& registrations) {
    INVARIANT(queue_->isCurrent() && !stopped_);
    const bool nothing = changes.empty() && registrations.gone.empty() && registrations.fresh.empty();
    if (nothing && !unsaved_) return {};
    Store::Changes part{changes.applicationsGone, changes.applicationsNew, changes.bundlesGone,
                        changes.bundlesNew,       registrations.gone,      registrations.fresh};
    const auto everything = [&] {
        return Store::Changes{
            {}, after.applications(), {}, after.bundles(), {}, {registrations_.begin(), registrations_.end()}, true};
    };
    std::optional<value::Error> error;
    if (store_) error = store_->save(unsaved_ ? everything() : part);
    if (!store_ || (error && error->code == static_cast<std::int64_t>(StoreTrouble::damaged))) {
        error = replaceStore(error ? error->localizedDescription() : "registry store: unusable");
        if (!error) error = store_->save(everything());
    }
    if (error && !unsaved_) logging::error("cannot save what is installed: " + error->localizedDescription());
    if (!error && unsaved_) logging::notice("what is installed is saved again");
    unsaved_ = error.has_value();
    if (unsaved_) saveLater();
    return error;
}

void Registrar::saveLater() {
    saveTimer_ = queue::after(kSaveAgain, queue_, [weak = weak_from_this()] {
        const auto self = weak.lock();
        if (self && !self->stopped_) static_cast<void>(self->save({}, *self->snapshot(), {}));
    });
}

std::optional<value::Error> Registrar::replaceStore(const std::string& why) {
    // A store that is gone already was set aside by the try before.
    auto anew = store_ ? (store_.reset(), Store::openAnew(storePath_, why)) : Store::open(storePath_);
    if (!anew) return anew.error();
    store_ = std::move(anew->store);
    return {};
}

}  // namespace dravo
