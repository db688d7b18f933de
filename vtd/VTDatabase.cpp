#include "vtd/VTDatabase.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <limits>
#include <utility>

#include "Velto/VTError.h"
#include "Velto/VTProtocol.h"
#include "platform/effort/Effort.h"
#include "platform/logging/Log.h"
#include "platform/text/Format.h"
#include "vtd/BundleInfo.h"
#include "vtd/VTDAnnotationRound.h"
#include "vtd/VTDAnnotationStore.h"
#include "vtd/VTDPlugIn.h"

namespace {

constexpr char kUnit[] = "vtd/VTDatabase";
constexpr char kElection[] = "election";

void logRegistryNotice(const char* what, const dravo::DVVeltoProxy& plugIn) {
    logging::notice(text::format("{}:{} {}({}) {} {}", what, plugIn.bundleIdentifier(), plugIn.pluginIdentifier(),
                                 plugIn.bundleVersion(), plugIn.pluginUUID().string(),
                                 plugIn.bundlePath().value_or(std::string{})));
}

}  // namespace

value::Result<std::shared_ptr<VTDatabase>> VTDatabase::initWithDatabase(
    const std::optional<std::string>& path, std::shared_ptr<dravo::DVApplicationWorkspace> workspace) {
    auto annotations = VTDAnnotationStore::initWithDatabase(path);
    if (!annotations) return annotations.error();
    const std::shared_ptr<VTDatabase> database{new VTDatabase{*std::move(annotations), std::move(workspace)}};
    database->observeWorkspace();
    return database;
}

VTDatabase::VTDatabase(std::shared_ptr<VTDAnnotationStore> annotations,
                       std::shared_ptr<dravo::DVApplicationWorkspace> workspace)
    : workspace_{std::move(workspace)},
      annotations_{std::move(annotations)},
      sync_{std::make_shared<queue::SerialQueue>("VTDatabase")} {}

VTDatabase::~VTDatabase() = default;

void VTDatabase::observeWorkspace() {
    workspace()->addObserver(shared_from_this());
    if (auto all = workspace()->installedPlugins()) {
        makeImages(std::make_shared<const dravo::PluginList>(*std::move(all)), 0);
    }
}

void VTDatabase::checkOnSync(const char* operation) const {
    if (!_sync()->isCurrent()) {
        logging::internalInconsistency(text::format("{} outside the queue VTDatabase", operation), kUnit);
    }
}

// --- Lookups

std::shared_ptr<VTDPlugIn> VTDatabase::plugInForProxy(const std::shared_ptr<const dravo::DVVeltoProxy>& proxy) {
    BundleInfo bundleInfo;
    return plugInForProxy(proxy, bundleInfo);
}

std::shared_ptr<VTDPlugIn> VTDatabase::plugInForProxy(const std::shared_ptr<const dravo::DVVeltoProxy>& proxy,
                                                      BundleInfo& bundleInfo) {
    return _sync()->sync([&] {
        const auto cached = cache_.find(proxy->pluginUUID());
        return cached != cache_.end() ? cached->second : createPlugInForProxy(proxy, bundleInfo);
    });
}

std::shared_ptr<VTDPlugIn> VTDatabase::findPlugIn(const value::Uuid& uuid) {
    return _sync()->sync([&]() -> std::shared_ptr<VTDPlugIn> {
        if (const auto cached = cache_.find(uuid); cached != cache_.end()) return cached->second;
        const auto proxy = workspace()->plugin(uuid);
        if (!proxy) {
            logging::notice(text::format("Dravo cannot find plug-in with UUID:{}", uuid.string()));
            return nullptr;
        }
        if (const auto* const why = notes_.refusal(proxy)) {
            logging::repeat(*why);
            return nullptr;
        }
        return createPlugInForProxy(proxy);
    });
}

std::shared_ptr<VTDPlugIn> VTDatabase::findPlugInAtPath(const std::string& path) {
    const auto proxy = workspace()->pluginAtPath(path);
    if (!proxy) {
        logging::notice(text::format("Dravo cannot find plug-in at path:{}", path));
        return nullptr;
    }
    return findPlugIn(proxy->pluginUUID());
}

std::optional<VTDatabase::PlugIns> VTDatabase::plugInsWithinApplication(const std::string& path) {
    const auto registry = workspace();
    const auto application = registry->applicationAtPath(path);
    if (!application) return {};
    const dravo::PluginList proxies = registry->pluginsOf(*application);
    if (proxies.empty()) return {};
    PlugIns plugIns;
    plugIns.reserve(proxies.size());
    BundleInfo bundleInfo;
    for (const auto& proxy : proxies) {
        if (auto plugIn = plugInForProxy(proxy, bundleInfo)) plugIns.push_back(std::move(plugIn));
    }
    return plugIns;
}

bool VTDatabase::isDeparting(const std::shared_ptr<const dravo::DVVeltoProxy>& proxy) const {
    const auto announced = departing_.find(proxy->pluginUUID());
    return announced != departing_.end() && announced->second.lock() == proxy;
}

bool VTDatabase::isCurrent(const VTDPlugIn& plugIn) const {
    constexpr int kGone[] = {ENOENT, ENOTDIR, ELOOP, ESTALE};
    const auto proxy = plugIn.dvproxy();
    const bool isKnown = _sync()->sync([&] {
        const auto known = workspace()->plugin(plugIn.uuid());
        // The registry may have looked again without having found anything new.
        return known && !isDeparting(known) && known->fingerprint() == proxy->fingerprint();
    });
    const auto directory = isKnown ? proxy->openBundle() : value::posixError(ENOENT, plugIn.path());
    const bool isGone = !directory && directory.error().domain == "posix" &&
                        std::count(std::begin(kGone), std::end(kGone), directory.error().code) > 0;
    if (isGone) {
        logging::notice(text::format("plug-in {} at {} is going, or another lies in its place: {}", plugIn.identifier(),
                                     plugIn.path(), directory.error().localizedDescription()));
    }
    return !isGone;
}

void VTDatabase::noteCostlyPlugIn(const VTDPlugIn& plugIn) {
    if (!_sync()->sync([&] { return notes_.noteCosts(plugIn.dvproxy()); })) return;
    logging::notice(
        text::format("left out of a discovery: {} at {}, whose values need more effort than one plug-in may",
                     plugIn.identifier(), plugIn.path()));
}

// --- The cache

std::shared_ptr<VTDPlugIn> VTDatabase::createPlugInForProxy(const std::shared_ptr<const dravo::DVVeltoProxy>& proxy) {
    BundleInfo bundleInfo;
    return createPlugInForProxy(proxy, bundleInfo);
}

std::shared_ptr<VTDPlugIn> VTDatabase::createPlugInForProxy(const std::shared_ptr<const dravo::DVVeltoProxy>& proxy,
                                                            BundleInfo& bundleInfo) {
    checkOnSync("createPlugInForProxy");
    if (notes_.sayRefusal(proxy)) return nullptr;
    // How often records are built is the cache's matter, and not that of the request that happens to need one.
    const effort::Uncharged uncharged;
    auto plugIn = VTDPlugIn::initWithImage(proxy);
    if (!plugIn) plugIn = buildPlugIn(proxy, bundleInfo, logging::Transcript::Writing::now);
    if (!plugIn) return nullptr;
    notes_.sayLines(proxy);
    plugIn->setAnnotationSource(weak_from_this());
    if (plugIn->hasEntitlement(kAutoElectEntitlement)) autoElect(*plugIn);
    if (isDeparting(proxy) || !plugIn->isAsRegistered()) return plugIn;
    purgeCachesToLimit(static_cast<std::int32_t>(cacheLimit()));
    cache_[plugIn->uuid()] = plugIn;
    return plugIn;
}

std::shared_ptr<VTDPlugIn> VTDatabase::buildPlugIn(const std::shared_ptr<const dravo::DVVeltoProxy>& proxy,
                                                   BundleInfo& bundleInfo, logging::Transcript::Writing writing) {
    ++made_;
    logging::Transcript transcript{writing};
    VTDPlugIn::Refusal refusal{};
    auto plugIn = VTDPlugIn::initWithDVData(proxy, bundleInfo, refusal);
    auto lines = std::move(transcript).lines();
    const auto said = writing == logging::Transcript::Writing::now ? RecordNotes::Said::yes : RecordNotes::Said::no;
    if (!plugIn) {
        if (refusal == VTDPlugIn::Refusal::lasting) notes_.noteRefusal(proxy, std::move(lines), said);
        return nullptr;
    }
    if (said == RecordNotes::Said::no && !lines.empty()) notes_.noteLines(proxy, std::move(lines));
    plugIn->keepImage();
    // A view of the image is much smaller than what it was made of.
    auto view = VTDPlugIn::initWithImage(proxy);
    return view ? view : plugIn;
}

// One at a time, behind whoever waits for the queue meanwhile. What cannot be used is found out here too; the log says
// so when somebody asks for it. It may run on a thread that waits for the queue, whose request does not pay for it.
void VTDatabase::makeImages(std::shared_ptr<const dravo::PluginList> plugIns, std::size_t begin) {
    if (begin >= plugIns->size()) return;
    _sync()->async([weak = weak_from_this(), plugIns = std::move(plugIns), begin] {
        const auto self = weak.lock();
        if (!self) return;
        const effort::Uncharged uncharged;
        const auto& proxy = (*plugIns)[begin];
        const bool isWanted = proxy->bundlePath() && self->workspace()->plugin(proxy->pluginUUID()) == proxy &&
                              !self->isDeparting(proxy) && self->notes_.refusal(proxy) == nullptr;
        BundleInfo bundleInfo;
        if (isWanted && !VTDPlugIn::initWithImage(proxy)) {
            self->buildPlugIn(proxy, bundleInfo, logging::Transcript::Writing::later);
        }
        self->makeImages(plugIns, begin + 1);
    });
}

void VTDatabase::purgeCachesToLimit(std::int32_t limit) {
    checkOnSync("purgeCachesToLimit");
    const auto count = static_cast<std::uint32_t>(cache_.size());
    if (count <= static_cast<std::uint32_t>(limit)) return;
    logging::notice(text::format("purging cache for {} > {}", count, limit));
    cache_.clear();
    workspace()->clearSchemaCaches();
}

const VTDatabase::Cache& VTDatabase::cache() const {
    checkOnSync("cache");
    return cache_;
}

void VTDatabase::setCache(Cache cache) {
    checkOnSync("setCache");
    cache_ = std::move(cache);
}

// --- Registration

std::optional<VTDatabase::Failure> VTDatabase::addPlugIn(std::span<const dravo::Registration> bundles,
                                                         const dravo::Registrant& registrant) {
    const std::size_t done = workspace()->registerPlugins(bundles, registrant);
    if (done == bundles.size()) return {};
    return Failure{done, VTError(VTErrorRegistry, "Dravo failed to register the plug-in")};
}

std::optional<VTDatabase::Failure> VTDatabase::removePlugIn(std::span<const dravo::Removal> bundles) {
    const std::size_t done = workspace()->unregisterPlugins(bundles);
    if (done == bundles.size()) return {};
    return Failure{done, VTError(VTErrorRegistry, "Dravo failed to deregister the plug-in")};
}

// --- Annotations

std::optional<value::Dictionary> VTDatabase::annotationForPlugIn(const VTDPlugIn& plugIn) {
    return _sync()->sync([&] { return annotations()->annotationForPlugIn(plugIn); });
}

std::optional<value::Error> VTDatabase::setAnnotation(const std::optional<value::Dictionary>& annotation,
                                                      const VTDPlugIn& plugIn) {
    return VTDAnnotationRound{*this}.set(annotation, plugIn);
}

void VTDatabase::saveAnnotations() {
    if (!annotations()->isUnsaved()) return;
    _sync()->sync([&] { annotations()->save(); });
}

void VTDatabase::autoElect(const VTDPlugIn& plugIn) {
    checkOnSync("autoElect");
    const auto store = annotations();
    const value::Dictionary annotation = store->annotationForPlugIn(plugIn).value_or(value::Dictionary{});
    const value::Value* election = annotation.find(kElection);
    if (election != nullptr && election->integerValue().value_or(0) != 0) return;
    const auto refused = store->setAnnotation(annotation.changing(kElection, 1), plugIn.annotationKey());
    if (refused && !leavesElectionsOut_) {
        logging::notice(text::format("leaving out automatic elections, that of {} and what follows: {}",
                                     plugIn.identifier(), refused->localizedDescription()));
    }
    leavesElectionsOut_ = refused.has_value();
}

// --- The registry's callbacks

void VTDatabase::pluginsDidInstall(const dravo::PluginList& plugIns) {
    for (const auto& plugIn : plugIns) logRegistryNotice("INSTALLED", *plugIn);
    makeImages(std::make_shared<const dravo::PluginList>(plugIns), 0);
}

void VTDatabase::pluginsWillUninstall(const dravo::PluginList& plugIns) {
    _sync()->sync([&] {
        std::erase_if(departing_, [](const auto& announced) { return announced.second.expired(); });
        for (const auto& plugIn : plugIns) {
            logRegistryNotice("UNINSTALLED", *plugIn);
            cache_.erase(plugIn->pluginUUID());
            departing_.insert_or_assign(plugIn->pluginUUID(), plugIn);
        }
    });
    if (const auto delegate = this->delegate()) delegate->removedPlugIns(plugIns);
}
