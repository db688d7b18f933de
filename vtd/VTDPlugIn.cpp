#include "vtd/VTDPlugIn.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

#include "Velto/VTError.h"
#include "Velto/VTInfoKeys.h"
#include "Velto/VTIssueReadExtension.h"
#include "Velto/VTProtocol.h"
#include "Velto/VTValueHelpers.h"
#include "platform/effort/Effort.h"
#include "platform/logging/Log.h"
#include "platform/plist/Plist.h"
#include "platform/text/Format.h"
#include "platform/text/Utf8.h"
#include "vtd/BundleInfo.h"

namespace {

constexpr std::size_t kRefusedNamesLogged = 16;  // of one plug-in in one discovery

// Generations of the plug-in protocol where a bundle names none.
constexpr std::uint32_t kOldStyleProtocol = 1;
constexpr std::uint32_t kCurrentProtocol = 2;

// Cut towards zero; what no 32-bit integer can say becomes the nearest that one can.
std::int32_t wholeSeconds(value::Date date) {
    constexpr double kEarliest = std::numeric_limits<std::int32_t>::min();
    constexpr double kLatest = std::numeric_limits<std::int32_t>::max();
    if (std::isnan(date.seconds)) return 0;
    return static_cast<std::int32_t>(std::min(std::max(date.seconds, kEarliest), kLatest));
}

std::uint32_t protocolVersion(const value::Dictionary& top, const value::Dictionary& bundleInfo) {
    if (const auto declared = numberIn<std::uint32_t>(top, VTInfoKey::hubProtocolVersion)) return *declared;
    return bundleInfo.contains(VTInfoKey::oldStyle) ? kOldStyleProtocol : kCurrentProtocol;
}

// Of what an annotation is stored under in a file: a bundle's claim, which may be anything.
bool couldBeIdentifier(const std::string& text) {
    constexpr std::size_t kLongest = 1024;
    const auto isControl = [](unsigned char c) { return c < 0x20 || c == 0x7F; };
    return text.size() <= kLongest && std::none_of(text.begin(), text.end(), isControl) &&
           plist::writeXmlKey(text, 0).ok();
}

// The name that is kept, else what the registry answers, which is then kept.
template <typename Ask>
std::string keptName(VTAtomic<std::string>& kept, Ask&& ask) {
    std::string name = kept.load();
    if (!name.empty()) return name;
    name = ask().value_or(std::string{});
    if (!name.empty()) kept.store(name);
    return name;
}

}  // namespace

const std::string& annotationKeyFor(const std::string& identifier, const value::Dictionary& entitlements) {
    const std::string* replaced = entitlements.string(kReplacePlugInEntitlement);
    return replaced != nullptr && couldBeIdentifier(*replaced) ? *replaced : identifier;
}

std::shared_ptr<VTDPlugIn> VTDPlugIn::initWithDVData(const std::shared_ptr<const dravo::DVVeltoProxy>& proxy) {
    BundleInfo info;
    Refusal refusal{};
    return initWithDVData(proxy, info, refusal);
}

std::shared_ptr<VTDPlugIn> VTDPlugIn::initWithDVData(const std::shared_ptr<const dravo::DVVeltoProxy>& proxy,
                                                     BundleInfo& bundleInfo, Refusal& refusal) {
    const std::optional<std::string>& url = proxy->bundlePath();
    if (!url) return nullptr;
    if (!text::isUtf8(*url)) {  // no form could carry it
        logging::notice(text::format("ignoring plug-in at {}: its path is not UTF-8", *url));
        return nullptr;
    }
    const BundleInfo::Info& info = bundleInfo.of(*proxy);
    // What is no longer what the registry knows, or cannot be read now, will be looked at again.
    refusal = info.isAsKnown ? Refusal::lasting : Refusal::passing;

    auto plugIn = std::make_shared<VTDPlugIn>();
    // The set-up derives the plug-in dictionary from the bundle's own and never looks at the registry's copy, which the
    // registry would have to read from the disk for this.
    if (!plugIn->setupWithName(proxy->pluginIdentifier(), url, info.pruned, {}, proxy->pluginUUID())) {
        return nullptr;
    }
    plugIn->setDvproxy(proxy);
    plugIn->setOriginalIdentifier(proxy->originalIdentifier());
    plugIn->setLastModified(wholeSeconds(proxy->registrationDate()));
    plugIn->setOnSystemVolume(proxy->onSystemPartition());
    plugIn->resolveSDK();
    plugIn->setIsAsRegistered(info.isAsKnown && plugIn->sdkDigest() == proxy->fingerprint().sdk);
    if (!plugIn->isAsRegistered()) refusal = Refusal::passing;
    plugIn->setHubProtocolVersion(protocolVersion(plugIn->topDictionary(), plugIn->bundleInfoDictionary()));
    if (const auto container = proxy->containingBundle()) plugIn->setContainingUrl(container->bundlePath);
    if (const auto error = plugIn->diagnose()) {
        if (!plugIn->VTPlugInCore::diagnose()) refusal = Refusal::passing;  // its data container is wanting
        logging::notice(text::format("ignoring mis-configured plug-in at {}: {}", *url, error->localizedDescription()));
        return nullptr;
    }
    return plugIn;
}

std::shared_ptr<VTDPlugIn> VTDPlugIn::initWithImage(const std::shared_ptr<const dravo::DVVeltoProxy>& proxy) {
    auto kept = proxy->image(VTRecordImage::check);
    if (!kept) return nullptr;
    auto plugIn = std::make_shared<VTDPlugIn>();
    plugIn->setupWithImage(VTRecordImage{kept->bytes, std::move(kept->owner)}, proxy->pluginUUID());
    plugIn->setDvproxy(proxy);
    plugIn->setIsAsRegistered(true);
    return plugIn->isData() || proxy->hasDataContainer() ? plugIn : nullptr;
}

void VTDPlugIn::keepImage() const {
    if (!isAsRegistered()) return;
    if (const auto image = VTRecordImage::compile(*this)) dvproxy()->keepImage(*image);
}

value::Dictionary VTDPlugIn::prunedInfoDictionaryFor(const std::optional<value::Dictionary>& info) {
    if (!info) return {};
    value::Dictionary::Builder pruned;
    pruned.reserve(info->size());
    for (const value::Dictionary::Entry& entry : *info) {
        if (!entry.key.starts_with("DT")) pruned.set(entry.key, entry.value);
    }
    return std::move(pruned).build();
}

// --- Display names

std::string VTDPlugIn::localizedName() const {
    return keptName(localizedName_, [&] { return dvproxy()->localizedName(); });
}

std::string VTDPlugIn::localizedShortName() const {
    return keptName(localizedShortName_, [&] { return dvproxy()->localizedShortName(); });
}

std::string VTDPlugIn::localizedContainingName() const {
    return keptName(localizedContainingName_, [&]() -> std::optional<std::string> {
        const auto container = dvproxy()->containingBundle();
        return container && container->application ? container->application->localizedName() : std::nullopt;
    });
}

// --- Entitlements

std::optional<value::Value> VTDPlugIn::valueForEntitlement(std::string_view name) const {
    const auto proxy = dvproxy();
    const value::Value* found = proxy->entitlements().find(name);
    return found != nullptr ? std::optional{*found} : std::nullopt;
}

bool VTDPlugIn::hasEntitlement(std::string_view name) const {
    const auto found = valueForEntitlement(name);
    return found && *found != value::Value{false};
}

std::string VTDPlugIn::annotationKey() const {
    return annotationKeyFor(identifier(), entitlements());
}

// --- Checks

std::optional<value::Error> VTDPlugIn::diagnose() const {
    if (auto error = VTPlugInCore::diagnose()) return error;
    if (!isData() && !dvproxy()->hasDataContainer()) {
        return VTError(VTErrorConfiguration, "this plug-in has no sandbox data container");
    }
    return {};
}

// --- Shared resources

void VTDPlugIn::augmentForm(VTForm& form) const {
    if (plugInHasDictionary(VTInfoKey::shared)) return;  // names nothing, and may be large
    std::optional<value::Value> shared;
    {
        const effort::Uncharged uncharged;  // the registry has bounded the list
        shared = plugInValue(VTInfoKey::shared);
    }
    const bool namesResources = shared && (shared->string() != nullptr || shared->array() != nullptr);
    if (namesResources) form.set(VTFormKey::extensions, issueResourceExtensions(*shared));
}

value::Dictionary VTDPlugIn::issueResourceExtensions(const value::Value& shared) const {
    const value::Array names = shared.string() != nullptr  ? value::Array{shared}
                               : shared.array() != nullptr ? *shared.array()
                                                           : value::Array{};
    const bool onlyBundle = names.size() == 1 && names.begin()->string() != nullptr && *names.begin()->string() == ".";
    if (onlyBundle) {
        value::Dictionary kept = bundleExtension_.load();
        if (!kept.empty()) return kept;
    }

    const std::string root = url();
    const auto proxy = dvproxy();
    const file::Identity identity = proxy->bundleIdentity();
    std::optional<value::Result<file::UniqueFd>> bundle;  // opened when somebody asks for what is in it
    const auto issue = [&](const std::string& name) -> std::optional<std::string> {
        if (name == "." && identity.isKnown()) return VTIssueReadExtension(root, identity);
        if (!bundle) bundle = proxy->openBundle();
        errno = *bundle ? 0 : static_cast<int>(bundle->error().code);
        return *bundle ? VTIssueReadExtension(**bundle, root, name) : std::nullopt;
    };
    value::Dictionary::Builder extensions;
    extensions.reserve(names.size());
    std::size_t refused = 0;
    for (const value::Value& element : names) {
        const std::string* name = element.string();
        if (name == nullptr) continue;
        if (const auto token = issue(*name)) {
            extensions.set(*name, *token);
        } else if (++refused <= kRefusedNamesLogged) {
            const std::string target = *name == "." ? root : root + '/' + *name;
            logging::notice(text::format("failed to make extension for {} in plug-in at {}: {}", target, root,
                                         std::strerror(errno)));
        }
    }
    if (refused > kRefusedNamesLogged) {
        logging::notice(
            text::format("failed to make {} more extensions in plug-in at {}", refused - kRefusedNamesLogged, root));
    }
    value::Dictionary issued = std::move(extensions).build();
    if (onlyBundle) bundleExtension_.store(issued);
    return issued;
}

std::uint64_t VTDPlugIn::priceOfTokens() const {
    return std::max<std::size_t>(1, plugInListSize(VTInfoKey::shared)) * sandbox::kUnitsAToken;
}
