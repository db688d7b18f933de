#include "platform/dravo/scan/Scanner.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "platform/bundle/Bundle.h"
#include "platform/dravo/scan/Bounds.h"
#include "platform/dravo/scan/BundleReading.h"
#include "platform/entitlements/Entitlements.h"
#include "platform/file/Beneath.h"
#include "platform/logging/Log.h"
#include "platform/paths/Paths.h"
#include "platform/text/Format.h"

namespace dravo {

namespace {

constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int kPathOnly = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr std::size_t kComplaintsLimit = 1000;
constexpr std::size_t kPathLimit = 1023;
constexpr std::size_t kListBuffer = 16384;

bool isApplication(std::string_view name) {
    return name.ends_with(".app");
}

// A stamp that is never equal to a file's, but tells which file it was.
file::Stamp untrusted(const file::Stamp& stamp) {
    return {.device = stamp.device, .inode = stamp.inode, .size = kUntrusted.size};
}

// A stamp that a later write is sure to change; else one that is never equal to a file's.
file::Stamp trusted(const file::Stamp& stamp) {
    return stamp == file::Stamp{} || file::settled(stamp) ? stamp : untrusted(stamp);
}

// Looks at one thing by itself: what was uncertain before neither shows in `flag` meanwhile nor is forgotten.
class ByItself {
public:
    explicit ByItself(bool& flag) : flag_{flag}, before_{std::exchange(flag, false)} {}
    ~ByItself() { flag_ = flag_ || before_; }
    ByItself(const ByItself&) = delete;
    ByItself& operator=(const ByItself&) = delete;

private:
    bool& flag_;
    const bool before_;
};

double now() {
    return std::chrono::duration<double>{std::chrono::system_clock::now().time_since_epoch()}.count();
}

// A plug-in keeps its UUID for as long as the bundle has it, and its date for as long as the bundle stays as it is.
void identify(BundleFacts& facts, const BundleFacts* known) {
    const bool unchanged = known && known->digest == facts.digest && known->entitlements == facts.entitlements;
    for (PlugInFacts& plugIn : facts.plugIns) {
        plugIn.registered = now();
        const PlugInFacts* before = nullptr;
        if (known) {
            const auto found = std::find_if(known->plugIns.begin(), known->plugIns.end(), [&](const PlugInFacts& old) {
                return old.identifier == plugIn.identifier;
            });
            if (found != known->plugIns.end()) before = &*found;
        }
        plugIn.uuid = before ? before->uuid : value::Uuid::random();
        if (before && unchanged) plugIn.registered = before->registered;
    }
}

}  // namespace

std::vector<Root> installationRoots() {
    const paths::Directories& directories = paths::directories();
    const std::string user = file::canonicalPath(directories.userVolume).value_or(directories.userVolume);
    const std::string system = file::canonicalPath(directories.systemVolume).value_or(directories.systemVolume);
    return {{user + "/Applications", user, Root::Holds::applications, false},
            {system + "/Applications", system, Root::Holds::applications, true},
            {system + "/PlugIns", system, Root::Holds::plugIns, true}};
}

bool liesWhereInstalled(const std::string& path) {
    const auto roots = installationRoots();
    return std::any_of(roots.begin(), roots.end(), [&](const Root& root) {
        const std::string name = file::nameBeneath(path, root.path);
        if (name.empty()) return false;
        std::string_view rest = name;
        std::size_t slash = rest.find('/');
        if (rest.front() == '.') return false;
        if (root.holds == Root::Holds::plugIns) return slash == std::string_view::npos;
        if (slash == std::string_view::npos || isApplication(rest.substr(0, slash))) return slash != rest.npos;
        rest.remove_prefix(slash + 1);  // of a container folder
        slash = rest.find('/');
        return slash != std::string_view::npos && rest.front() != '.' && isApplication(rest.substr(0, slash));
    });
}

Scanner::Pass::Pass(Scanner& scanner, std::shared_ptr<const Snapshot> known) : scanner_{scanner} {
    scanner_.known_ = std::move(known);
}

Scanner::Pass::~Pass() {
    scanner_.known_ = nullptr;
    scanner_.given_ = nullptr;
    scanner_.seen_.clear();
    scanner_.rootPath_.clear();
    scanner_.root_.reset();
}

std::optional<struct stat> Scanner::statusOf(int parent, const std::string& name, const std::string& path) {
    struct stat status {};
    if (::fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) return status;
    if (file::mayPass(errno)) trouble(path, errno);
    return {};
}

// Nothing when there is no Info.plist: no bundle, or one that is still being made.
std::optional<BundleStamps> Scanner::stampsOf(int parent, const std::string& name, const struct stat& directory,
                                              const std::string& path) {
    const auto info = statusOf(parent, name + "/" + bundle::kInfoFile, path);
    if (!info) return {};
    const auto entitlements = statusOf(parent, name + "/" + entitlements::kFile, path);
    return BundleStamps{file::stampOf(directory), file::stampOf(*info),
                        entitlements ? file::stampOf(*entitlements) : file::Stamp{}};
}

int Scanner::rootDirectory(const Root& root) {
    if (rootPath_ != root.path || !root_) {
        rootPath_ = root.path;
        root_ = file::UniqueFd{::open(root.path.c_str(), kDirectory)};
        if (!root_) trouble(root.path, errno);
    }
    return root_.get();
}

std::vector<std::string> Scanner::entries(const Root& root) {
    uncertain_ = false;
    const int directory = rootDirectory(root);
    if (directory < 0) return {};
    return list(directory, root.path, kEntriesLimit);
}

Finding Scanner::entry(const Root& root, const std::string& name, Watcher::Look& look) {
    uncertain_ = false;
    Finding finding;
    const int parent = rootDirectory(root);
    if (parent < 0) return finding;
    const std::string path = root.path + "/" + name;
    const Bounds bounds{root.volume, root.path};
    if (root.holds == Root::Holds::plugIns) {
        plugIn(parent, name, {path, root.onSystemVolume, nullptr}, bounds, look, finding);
        return finding;
    }
    const Directory directory = openWatched(parent, name, path, bounds, look);
    if (!directory) return finding;
    if (isApplication(directory.path)) {
        application(root, directory, {}, look, finding);
        return finding;
    }
    for (const std::string& inside : list(directory.descriptor.get(), directory.path, kContainerEntriesLimit)) {
        if (!isApplication(inside)) continue;
        const std::string within = directory.path + "/" + inside;
        const Directory app = openWatched(directory.descriptor.get(), inside, within, bounds, look);
        if (!app || !isApplication(app.path)) continue;
        application(root, app, directory.path, look, finding);
    }
    return finding;
}

Finding Scanner::registered(const std::string& path, Watcher::Look& look) {
    uncertain_ = false;
    Finding finding;
    look.towards(path);
    const std::size_t slash = path.rfind('/');
    const auto parent = file::openWithoutLinks(path.substr(0, std::max<std::size_t>(slash, 1)), kPathOnly);
    if (!parent) {  // gone, or reached through a link by now
        static_cast<void>(passesBy(path, parent.error()));
        return finding;
    }
    const std::string& volume = paths::directories().systemVolume;
    const bool onSystemVolume = file::isBeneath(path, file::canonicalPath(volume).value_or(volume));
    BundlePlace place{path, onSystemVolume, applicationAround(path)};
    if (place.application) finding.applications.push_back(place.application);
    const std::string name = path.substr(slash + 1);
    const auto status = statusOf(parent->get(), name, path);
    if (status && S_ISDIR(status->st_mode)) bundle(parent->get(), name, *status, std::move(place), finding);
    return finding;
}

Scanner::Directory Scanner::open(int parent, const std::string& name, const std::string& path, const Bounds& bounds) {
    if (path.size() > kPathLimit) return {};
    file::UniqueFd descriptor{::openat(parent, name.c_str(), kDirectory)};
    if (descriptor) return {.descriptor = std::move(descriptor), .path = path};
    const int reason = errno;
    const auto status = statusOf(parent, name, path);
    if (status && S_ISLNK(status->st_mode)) return followLink(path, bounds);
    trouble(path, reason);
    return {};
}

Scanner::Directory Scanner::followLink(const std::string& path, const Bounds& bounds) {
    const auto target = file::canonicalPathWithin(bounds.within, path);
    if (!target || !file::isBeneath(*target, bounds.within)) {
        complain(path, "a link that leads nowhere, or out of where it lies");
        return {};
    }
    const std::string& except = bounds.except;
    const bool foundAnyway =
        !except.empty() && (*target == except || file::isBeneath(*target, except) || file::isBeneath(except, *target));
    if (foundAnyway) return {};
    auto descriptor = file::openWithoutLinks(*target, kDirectory);
    if (!descriptor) {
        trouble(*target, static_cast<int>(descriptor.error().code));
        return {};
    }
    return {.descriptor = *std::move(descriptor), .path = *target};
}

Scanner::Directory Scanner::openWatched(int parent, const std::string& name, const std::string& path,
                                        const Bounds& bounds, Watcher::Look& look) {
    const bool watched = look.directory(path);
    Directory directory = open(parent, name, path, bounds);
    if (!directory) return directory;
    if (directory.path != path) look.above(directory.path);
    directory.watched = directory.path == path ? watched : look.directory(directory.path);
    return directory;
}

// The directories and links in a directory, hidden ones left out, in the order of their names. Straight from the
// kernel: what opendir() does around it, for each of thousands of directories, costs as much as the reading itself.
std::vector<std::string> Scanner::list(int directory, const std::string& path, std::size_t limit) {
    std::vector<std::string> names;
    alignas(dirent64) std::array<char, kListBuffer> buffer;
    std::size_t count = 0;
    ssize_t length = 0;
    while ((length = ::getdents64(directory, buffer.data(), buffer.size())) > 0) {
        for (ssize_t at = 0; at < length;) {
            const auto* const entry = reinterpret_cast<const dirent64*>(buffer.data() + at);
            at += entry->d_reclen;
            const bool mayHold = entry->d_type == DT_DIR || entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN;
            if (mayHold && entry->d_name[0] != '.') names.emplace_back(entry->d_name);
            ++count;
        }
        if (count > limit + 2) {  // "." and ".." come along
            complain(path, text::format("more than {} entries; not all are looked at", limit));
            break;
        }
    }
    if (length < 0) trouble(path, errno);
    std::sort(names.begin(), names.end());
    return names;
}

void Scanner::application(const Root& root, const Directory& directory, const std::optional<std::string>& container,
                          Watcher::Look& look, Finding& finding) {
    const auto application = applicationRecord(directory.descriptor.get(), directory.path, container);
    finding.applications.push_back(application);
    if (directory.watched) {
        application->lookForPlaceholder();
    } else {
        application->doubtPlaceholder();
    }
    const Bounds bounds{directory.path, ""};
    const std::string path = directory.path + "/PlugIns";
    const Directory plugIns = open(directory.descriptor.get(), "PlugIns", path, bounds);
    if (!plugIns) return;
    look.directory(plugIns.path);
    for (const std::string& name : list(plugIns.descriptor.get(), plugIns.path, kEntriesLimit)) {
        plugIn(plugIns.descriptor.get(), name, {plugIns.path + "/" + name, root.onSystemVolume, application}, bounds,
               look, finding);
    }
}

std::shared_ptr<const ApplicationRecord> Scanner::applicationRecord(int directory, const std::string& path,
                                                                    const std::optional<std::string>& container) {
    const ByItself certainty{uncertain_};
    const auto status = statusOf(directory, bundle::kInfoFile, path);
    const file::Stamp stamp = status ? file::stampOf(*status) : file::Stamp{};
    auto known = known_->application(path);
    const bool isUnchanged = known && known->facts().info == stamp && known->facts().containerPath == container;
    if (isUnchanged && file::mayBe(known->facts().identity, directory)) return seen_[path] = known;
    ApplicationFacts facts;
    facts.row = known ? known->facts().row : ++lastRow_;
    facts.containerPath = container;
    facts.info = trusted(stamp);
    if (const auto identity = file::identityOf(directory)) {
        facts.identity = *identity;
    } else {
        trouble(path, errno);
    }
    if (stamp != file::Stamp{}) {
        if (const auto info = readInfoFile(directory)) {
            facts.identifier = sensibleText(info->dictionary, bundle::kIdentifierKey);
            facts.name = displayName(info->dictionary);
        } else if (!passesBy(path, info.error()) && (!known || known->facts().info != stamp)) {
            logging::warning(text::format("application at {}: {}", path, info.error().localizedDescription()));
        }
    }
    if (uncertain_ && known) return known;
    if (uncertain_) facts.info = kUntrusted;
    auto record = std::make_shared<const ApplicationRecord>(path, std::move(facts));
    // What is uncertain goes with this call; another one in the same pass looks for itself.
    if (!uncertain_) seen_[path] = record;
    return record;
}

// The application that a bundle registered by path lies in: the nearest directory above it that is one.
std::shared_ptr<const ApplicationRecord> Scanner::applicationAround(const std::string& path) {
    std::string above = path;
    for (std::size_t slash = above.rfind('/'); slash != std::string::npos && slash > 0; slash = above.rfind('/')) {
        above.resize(slash);
        if (!isApplication(above)) continue;
        if (const auto seen = seen_.find(above); seen != seen_.end()) return seen->second;
        const auto directory = file::openWithoutLinks(above, kPathOnly);
        if (!directory) {
            trouble(above, static_cast<int>(directory.error().code));
            return nullptr;
        }
        const auto known = known_->application(above);
        return applicationRecord(directory->get(), above, known ? known->facts().containerPath : std::nullopt);
    }
    return nullptr;
}

void Scanner::plugIn(int parent, const std::string& name, BundlePlace place, const Bounds& bounds, Watcher::Look& look,
                     Finding& finding) {
    if (place.path.size() > kPathLimit) return;
    look.directory(place.path);
    const auto status = statusOf(parent, name, place.path);
    if (status && S_ISDIR(status->st_mode)) {
        bundle(parent, name, *status, std::move(place), finding);
    } else if (status && S_ISLNK(status->st_mode)) {
        const Directory target = followLink(place.path, bounds);
        const auto targetStatus = target ? statusOf(target.descriptor.get(), ".", target.path) : std::nullopt;
        if (!targetStatus) return;
        look.above(target.path);
        look.directory(target.path);
        place.path = target.path;
        bundle(target.descriptor.get(), ".", *targetStatus, std::move(place), finding);
    }
}

void Scanner::bundle(int parent, const std::string& name, const struct stat& directory, BundlePlace place,
                     Finding& finding) {
    const ByItself certainty{uncertain_};
    auto stamps = stampsOf(parent, name, directory, place.path);
    if (!stamps || uncertain_) return;
    auto known = known_->bundle(place.path);
    if (known && known->facts().stamps == *stamps && known->facts().identity.isKnown()) {
        const bool samePlace =
            known->application() == place.application && known->onSystemVolume() == place.onSystemVolume;
        const bool isSame = samePlace && sdks_.areNotedIn(known->facts().plugIns);
        finding.bundles.push_back(isSame ? known : bundleRecord(std::move(place), known->facts()));
        return;
    }
    const file::UniqueFd opened{::openat(parent, name.c_str(), kDirectory)};
    if (!opened) {
        trouble(place.path, errno);
        return;
    }
    const auto identity = file::identityOf(opened.get());
    if (!identity) {
        trouble(place.path, errno);
        return;
    }
    // What was opened may be another directory than the one that was looked at; then that look vouches for nothing.
    if (identity->device != stamps->directory.device || identity->inode != stamps->directory.inode) {
        stamps->directory = kUntrusted;
    }
    auto facts = read(opened.get(), place.path, *stamps, *identity, known ? &known->facts() : nullptr);
    if (!uncertain_) finding.bundles.push_back(bundleRecord(std::move(place), std::move(facts)));
}

BundleFacts Scanner::read(int directory, const std::string& path, const BundleStamps& stamps,
                          const file::Identity& identity, const BundleFacts* known) {
    BundleFacts facts;
    facts.identity = identity;
    facts.row = known ? known->row : ++lastRow_;
    facts.stamps = {trusted(stamps.directory), trusted(stamps.info), trusted(stamps.entitlements)};
    const bool isGiven = given_ && given_->path == path && given_->stamps == stamps;
    if (const auto info = isGiven ? given_->info : readInfoFile(directory)) {
        facts.stamps.info = info->isSettled ? info->stamp : untrusted(info->stamp);
        describe(*info, facts);
    } else {
        static_cast<void>(passesBy(path, info.error()));
        facts.refusal = info.error().localizedDescription();
    }
    if (stamps.entitlements != file::Stamp{}) {
        if (auto entitlements = isGiven ? given_->entitlements : entitlements::ofBundle(directory, path)) {
            facts.entitlements = std::move(*entitlements);
        } else {
            static_cast<void>(passesBy(path, entitlements.error()));
            facts.remark = entitlements.error().localizedDescription();
        }
    }
    if (uncertain_) return facts;
    if (auto excess = excessOfEntitlements(facts.entitlements); excess && facts.refusal.empty()) {
        facts.refusal = text::format("{}: {}", entitlements::kFile, *excess);
    }
    if (!facts.refusal.empty()) {  // what is left to know is why, until it changes
        facts.plugIns.clear();
        facts.entitlements = {};
    }
    const bool isNews = !known || known->digest != facts.digest;
    if (!facts.refusal.empty() && (isNews || known->refusal != facts.refusal)) {
        logging::warning(text::format("no plug-in at {}: {}", path, facts.refusal));
    } else if (!facts.remark.empty() && (isNews || known->remark != facts.remark)) {
        logging::warning(text::format("plug-in at {}: {}", path, facts.remark));
    }
    identify(facts, known);
    return facts;
}

std::shared_ptr<const BundleRecord> Scanner::bundleRecord(BundlePlace place, BundleFacts facts) {
    sdks_.note(facts.plugIns);
    return std::make_shared<const BundleRecord>(std::move(place), std::move(facts), surroundings_);
}

// What cannot be looked at: gone by now, no directory, or something to tell of.
void Scanner::trouble(const std::string& path, int errorNumber) {
    uncertain_ = uncertain_ || file::mayPass(errorNumber);
    if (errorNumber != ENOENT && errorNumber != ENOTDIR) complain(path, std::strerror(errorNumber));
}

// Whether the error says nothing of what cannot be read.
bool Scanner::passesBy(const std::string& path, const value::Error& error) {
    if (error.domain != "posix" || !file::mayPass(static_cast<int>(error.code))) return false;
    trouble(path, static_cast<int>(error.code));
    return true;
}

void Scanner::complain(const std::string& path, const std::string& why) {
    if (complaints_.size() < kComplaintsLimit && complaints_.insert(path + why).second) {
        logging::warning(text::format("{}: {}", path, why));
    }
}

}  // namespace dravo
