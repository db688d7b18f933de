#include "platform/dravo/records/Records.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/digest/Fnv1a.h"
#include "platform/dravo/records/DataContainers.h"
#include "platform/dravo/scan/InfoFile.h"
#include "platform/dravo/store/Columns.h"
#include "platform/file/Beneath.h"
#include "platform/logging/Invariant.h"
#include "platform/mounts/Mounts.h"
#include "platform/mox/Encoder.h"

namespace dravo {

namespace {

constexpr int kDirectory = O_PATH | O_DIRECTORY | O_CLOEXEC;

// What is mounted over a record's directory by now may keep whoever opens it for ever.
std::optional<value::Error> refusalToAsk(const std::string& path) {
    if (!mounts::mayNeverAnswer(path)) return {};
    return value::posixError(ESTALE, path);
}

bool samePlugIn(const PlugInFacts& a, const PlugInFacts& b) {
    return sameFacts(kPlugInColumns, a, b);
}

}  // namespace

ApplicationRecord::Placeholder ApplicationRecord::placeholderOnDisk() const {
    if (mounts::mayNeverAnswer(path_)) return Placeholder::unknown;
    const std::string file = path_ + "/.placeholder";
    if (::faccessat(AT_FDCWD, file.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) return Placeholder::present;
    return file::mayPass(errno) ? Placeholder::unknown : Placeholder::absent;
}

void ApplicationRecord::lookForPlaceholder() const {
    placeholder_.store(placeholderOnDisk(), std::memory_order_relaxed);
}

bool ApplicationRecord::isPlaceholder() const {
    Placeholder known = placeholder_.load(std::memory_order_relaxed);
    if (known == Placeholder::unknown) known = placeholderOnDisk();
    return known == Placeholder::present;
}

value::Result<file::UniqueFd> ApplicationRecord::openBundle() const {
    if (auto refusal = refusalToAsk(path_)) return *std::move(refusal);
    return file::openSame(path_, facts_.identity, kDirectory);
}

// Whoever could move the application into a folder of another content could as well change what the folder holds: it is
// the very folder when the very application lies in it.
value::Result<file::UniqueFd> ApplicationRecord::openContainer() const {
    if (!facts_.containerPath) return value::posixError(ENOENT, path_);
    if (auto refusal = refusalToAsk(*facts_.containerPath)) return *std::move(refusal);
    auto container = file::openWithoutLinks(*facts_.containerPath, kDirectory);
    if (!container) return container;
    const auto application = file::openSameBeneath(container->get(), file::nameBeneath(path_, *facts_.containerPath),
                                                   facts_.identity, kDirectory);
    if (!application) return application.error();
    return container;
}

const std::optional<std::string>& PlugInRecord::bundlePath() const {
    return bundle_.optionalPath();
}

value::Result<file::UniqueFd> PlugInRecord::openBundle() const {
    return bundle_.open();
}

value::Result<DVBundleReading> PlugInRecord::readInfo() const {
    const auto directory = openBundle();
    if (!directory) return directory.error();
    const auto info = readInfoFile(directory->get());
    if (!info) return info.error();
    const BundleFacts& known = bundle_.facts();
    const bool isStampTrusted = known.stamps.info.size != kUntrusted.size;
    // Not the time of change: a link to the file from elsewhere moves it, of which no watch tells.
    file::Stamp stamp = info->stamp;
    stamp.changed = known.stamps.info.changed;
    const bool sameFile = !isStampTrusted || stamp == known.stamps.info;
    return DVBundleReading{info->dictionary, sameFile && info->digest == known.digest};
}

file::Identity PlugInRecord::bundleIdentity() const {
    return bundle_.facts().identity;
}

const std::string& PlugInRecord::originalIdentifier() const {
    const std::string& original = bundle_.facts().identifier;
    return original.empty() ? facts_.identifier : original;
}

const std::string& PlugInRecord::bundleIdentifier() const {
    return bundle_.facts().identifier;
}

const std::string& PlugInRecord::bundleVersion() const {
    return bundle_.facts().version;
}

std::optional<value::Dictionary> PlugInRecord::pluginDictionary() const {
    auto top = bundle_.surroundings().schemas.description(bundle_.path(), bundle_.facts().digest,
                                                          [this] { return openBundle(); });
    if (!top || !top->contains(kMultipleKey)) return top;
    const value::Dictionary* const multiple = top->dictionary(kMultipleKey);
    const value::Dictionary* const own = multiple ? multiple->dictionary(facts_.identifier) : nullptr;
    if (!own) return {};
    return *own;
}

bool PlugInRecord::onSystemPartition() const {
    return bundle_.onSystemVolume();
}

std::optional<DVBundleProxy> PlugInRecord::containingBundle() const {
    const auto& application = bundle_.application();
    if (!application) return {};
    return DVBundleProxy{application, application->bundlePath()};
}

std::optional<std::string> PlugInRecord::localizedName() const {
    return bundle_.facts().displayName;
}

std::optional<std::string> PlugInRecord::localizedShortName() const {
    return bundle_.facts().shortName;
}

const value::Dictionary& PlugInRecord::entitlements() const {
    return bundle_.facts().entitlements;
}

DVFingerprint PlugInRecord::fingerprint() const {
    mox::Encoder entitlements;
    entitlements.value(bundle_.facts().entitlements);
    const auto bytes = entitlements.bytes();
    return {bundle_.facts().digest, digest::fnv1a({reinterpret_cast<const char*>(bytes.data()), bytes.size()}),
            facts_.sdk.value_or(0)};
}

std::optional<std::string> PlugInRecord::dataContainerPath() const {
    const std::string& containers = bundle_.surroundings().containersPath;
    const bool isThere = makeDataContainer(containers, facts_.identifier) == 0;
    bundle_.setHasContainer(index(), isThere);
    return isThere ? std::optional{dravo::dataContainerPath(containers, facts_.identifier)} : std::nullopt;
}

bool PlugInRecord::hasDataContainer() const {
    return bundle_.hasContainer(index()) || dataContainerPath().has_value();
}

std::size_t PlugInRecord::index() const {
    const auto place = static_cast<std::size_t>(this - bundle_.plugIns().data());
    INVARIANT(place < bundle_.plugIns().size());  // it lives in its bundle's list
    return place;
}

Images::Key PlugInRecord::imageKey() const {
    std::string madeOf;
    const auto add = [&](std::string_view text) {
        const std::uint64_t size = text.size();
        madeOf.append(reinterpret_cast<const char*>(&size), sizeof size).append(text);
    };
    const auto addNumber = [&](const auto& number) { add({reinterpret_cast<const char*>(&number), sizeof number}); };
    const auto addIfAny = [&](const std::optional<std::string>& text) {
        addNumber(text.has_value());
        if (text) add(*text);
    };
    const BundleFacts& bundle = bundle_.facts();
    add(bundle_.path());
    addNumber(bundle_.onSystemVolume());
    addNumber(bundle.digest);
    add(bundle.identifier);
    addIfAny(bundle.displayName);
    addIfAny(bundle.shortName);
    add(facts_.identifier);
    addNumber(facts_.registered);
    addNumber(facts_.sdk.value_or(0));
    if (const auto& application = bundle_.application()) {
        add(application->bundlePath());
        addIfAny(application->localizedName());
    }
    return {facts_.uuid, digest::fingerprint(std::as_bytes(std::span{madeOf}))};
}

std::optional<DVImage> PlugInRecord::image(DVImage::IsSound isSound) const {
    Images& images = bundle_.surroundings().images;
    Images::Place& place = bundle_.imagePlace(index());
    if (auto known = images.at(place)) return known;
    return images.find(imageKey(), place, isSound);
}

void PlugInRecord::keepImage(std::span<const std::byte> bytes) const {
    bundle_.surroundings().images.keep(imageKey(), bytes, bundle_.imagePlace(index()));
}

BundleRecord::BundleRecord(BundlePlace place, BundleFacts facts, std::shared_ptr<Surroundings> surroundings)
    : path_{std::move(place.path)},
      onSystemVolume_{place.onSystemVolume},
      application_{std::move(place.application)},
      facts_{std::move(facts)},
      surroundings_{std::move(surroundings)},
      hasContainer_{std::make_unique<std::atomic<bool>[]>(facts_.plugIns.size())},
      imagePlaces_{std::make_unique<Images::Place[]>(facts_.plugIns.size())} {
    plugIns_.reserve(facts_.plugIns.size());
    for (const PlugInFacts& plugIn : facts_.plugIns) plugIns_.emplace_back(*this, plugIn);
}

value::Result<file::UniqueFd> BundleRecord::open() const {
    if (auto refusal = refusalToAsk(path())) return *std::move(refusal);
    if (!application_) return file::openSame(path(), facts_.identity, kDirectory);
    // That the bundle is the very one follows from its own identity; its application's tells where it lies, and is
    // looked at with one system call less, since every record that is built passes here.
    auto application = file::openWithoutLinks(application_->bundlePath(), kDirectory);
    if (!application) return application;
    if (!file::mayBe(application_->facts().identity, application->get())) {
        return value::posixError(ESTALE, application_->bundlePath());
    }
    return file::openSameBeneath(application->get(), file::nameBeneath(path(), application_->bundlePath()),
                                 facts_.identity, kDirectory);
}

std::shared_ptr<const DVVeltoProxy> proxy(const std::shared_ptr<const BundleRecord>& bundle, std::size_t index) {
    return {bundle, &bundle->plugIns()[index]};
}

bool sameContent(const ApplicationRecord& a, const ApplicationRecord& b) {
    return a.bundlePath() == b.bundlePath() && sameFacts(kApplicationColumns, a.facts(), b.facts());
}

bool sameContent(const BundleRecord& a, const BundleRecord& b) {
    const auto& ownerOfA = a.application();
    const auto& ownerOfB = b.application();
    if (ownerOfA != ownerOfB && (!ownerOfA || !ownerOfB || !sameContent(*ownerOfA, *ownerOfB))) return false;
    const BundleFacts& x = a.facts();
    const BundleFacts& y = b.facts();
    return a.path() == b.path() && sameFacts(kBundleColumns, x, y) &&
           std::equal(x.plugIns.begin(), x.plugIns.end(), y.plugIns.begin(), y.plugIns.end(), samePlugIn);
}

bool sameDirectory(const BundleRecord& a, const BundleRecord& b) {
    const auto same = [](const file::Identity& x, const file::Identity& y) {
        return !x.isKnown() || !y.isKnown() || x == y;
    };
    const auto& ownerOfA = a.application();
    const auto& ownerOfB = b.application();
    return same(a.facts().identity, b.facts().identity) &&
           (!ownerOfA || !ownerOfB || same(ownerOfA->facts().identity, ownerOfB->facts().identity));
}

}  // namespace dravo
