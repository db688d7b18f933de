#include "platform/dravo/Records.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "platform/dravo/DataContainers.h"
#include "platform/dravo/InfoFile.h"
#include "platform/mounts/Mounts.h"

namespace dravo {

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

const std::optional<std::string>& PlugInRecord::bundlePath() const {
    return bundle_.optionalPath();
}

bool PlugInRecord::isInPlace() const {
    const auto there = file::stampOf(bundle_.path());
    return there && file::isSameFile(*there, bundle_.facts().stamps.directory);
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
    auto top = bundle_.surroundings().schemas.description(bundle_.path(), bundle_.facts().digest);
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

value::Dictionary PlugInRecord::entitlements() const {
    return bundle_.facts().entitlements;
}

std::optional<std::string> PlugInRecord::dataContainerPath() const {
    const auto index = static_cast<std::size_t>(this - bundle_.plugIns().data());
    const std::string& containers = bundle_.surroundings().containersPath;
    if (!bundle_.hasContainer(index)) {
        if (makeDataContainer(containers, facts_.identifier) != 0) return {};
        bundle_.setHasContainer(index);
    }
    return dravo::dataContainerPath(containers, facts_.identifier);
}

BundleRecord::BundleRecord(BundlePlace place, BundleFacts facts, std::shared_ptr<Surroundings> surroundings)
    : path_{std::move(place.path)},
      onSystemVolume_{place.onSystemVolume},
      application_{std::move(place.application)},
      facts_{std::move(facts)},
      surroundings_{std::move(surroundings)},
      hasContainer_{std::make_unique<std::atomic<bool>[]>(facts_.plugIns.size())} {
    plugIns_.reserve(facts_.plugIns.size());
    for (const PlugInFacts& plugIn : facts_.plugIns) plugIns_.emplace_back(*this, plugIn);
}

std::shared_ptr<const DVVeltoProxy> proxy(const std::shared_ptr<const BundleRecord>& bundle, std::size_t index) {
    return {bundle, &bundle->plugIns()[index]};
}

bool sameContent(const ApplicationRecord& a, const ApplicationRecord& b) {
    const ApplicationFacts& x = a.facts();
    const ApplicationFacts& y = b.facts();
    return a.bundlePath() == b.bundlePath() && x.containerPath == y.containerPath && x.identifier == y.identifier &&
           x.name == y.name;
}

bool sameContent(const BundleRecord& a, const BundleRecord& b) {
    const auto& ownerOfA = a.application();
    const auto& ownerOfB = b.application();
    if (ownerOfA != ownerOfB && (!ownerOfA || !ownerOfB || !sameContent(*ownerOfA, *ownerOfB))) return false;
    const BundleFacts& x = a.facts();
    const BundleFacts& y = b.facts();
    return a.path() == b.path() && x.digest == y.digest && x.entitlements == y.entitlements && x.refusal == y.refusal &&
           x.plugIns == y.plugIns;
}

bool sameDirectory(const BundleRecord& a, const BundleRecord& b) {
    const file::Stamp& x = a.facts().stamps.directory;
    const file::Stamp& y = b.facts().stamps.directory;
    const auto isUnknown = [](const file::Stamp& stamp) { return file::isSameFile(stamp, {}); };
    return isUnknown(x) || isUnknown(y) || file::isSameFile(x, y);
}

}  // namespace dravo
