#include "Velto/VTPlugInCore.h"

#include <functional>
#include <utility>

#include "Velto/VTAssertion.h"
#include "Velto/VTError.h"
#include "Velto/VTProtocol.h"
#include "Velto/VTValueHelpers.h"
#include "platform/logging/Log.h"
#include "platform/text/Described.h"

namespace {

constexpr char kUnit[] = "Velto/VTPlugInCore";
constexpr char kDataProtocol[] = "#Data";
constexpr char kObjectClass[] = "KXObject";

const value::Dictionary& noEntries() {
    static const value::Dictionary empty;
    return empty;
}

}  // namespace

std::shared_ptr<VTPlugInCore> VTPlugInCore::initWithName(const std::optional<std::string>& identifier,
                                                         const std::optional<std::string>& url,
                                                         const std::optional<value::Value>& bundleInfo,
                                                         const std::optional<value::Dictionary>& info,
                                                         const std::optional<value::Uuid>& uuid) {
    auto plugIn = std::make_shared<VTPlugInCore>();
    return plugIn->setupWithName(identifier, url, bundleInfo, info, uuid) ? plugIn : nullptr;
}

// --- Identity

bool VTPlugInCore::operator==(const VTPlugInCore& other) const {
    return uuid() == other.uuid_.load();
}

std::size_t VTPlugInCore::hash() const {
    return std::hash<value::Uuid>{}(uuid());
}

value::Uuid VTPlugInCore::uuid() const {
    const std::optional<value::Uuid> known = uuid_.load();
    if (!known) VTAssertionFailure("self.uuid", kUnit);
    return *known;
}

// --- Setup

bool VTPlugInCore::setupWithName(const std::optional<std::string>& identifier, const std::optional<std::string>& url,
                                 const std::optional<value::Value>& bundleInfo,
                                 const std::optional<value::Dictionary>& /*info*/,
                                 const std::optional<value::Uuid>& uuid) {
    if (!url) return false;
    if (!identifier) {
        logging::notice(text::format("missing identifier in plug-in at {}", *url));
        return false;
    }
    if (!bundleInfo) {
        logging::notice(text::format("missing Info dictionary in plug-in {} at {}", *identifier, *url));
        return false;
    }
    setIdentifier(*identifier);
    setUrl(*url);
    const value::Dictionary* const whole = bundleInfo->dictionary();
    if (!setDictionaries(whole != nullptr ? normalizeInfoDictionary(*whole) : *bundleInfo)) {
        logging::notice(
            text::format("malformed plug-in dictionary in plug-in {} at {}: {}", *identifier, *url, *bundleInfo));
        return false;
    }
    setUuid(uuid ? *uuid : value::Uuid::random());
    return true;
}

value::Dictionary VTPlugInCore::normalizeInfoDictionary(const value::Dictionary& bundleInfo) const {
    return bundleInfo;
}

bool VTPlugInCore::setDictionaries(const value::Value& bundleInfo) {
    const value::Dictionary* whole = bundleInfo.dictionary();
    if (whole == nullptr) return false;
    setBundleInfoDictionary(*whole);

    const value::Dictionary* top = whole->dictionary(VTInfoKey::extension);
    topDictionary_ = top != nullptr ? std::optional{*top} : std::nullopt;
    plugInDictionary_.reset();
    noteChange();
    if (top == nullptr) return false;

    plugInDictionary_ = *top;
    if (isMultiplexed()) {
        const value::Dictionary* multiple = top->dictionary(VTInfoKey::multiple);
        const value::Dictionary* own = multiple != nullptr ? multiple->dictionary(identifier()) : nullptr;
        plugInDictionary_ = own != nullptr ? std::optional{*own} : std::nullopt;
    }
    return plugInDictionary_.has_value();
}

// --- The two views and the dictionary around them

const value::Dictionary& VTPlugInCore::topDictionary() const {
    return topDictionary_ ? *topDictionary_ : noEntries();
}

// By value, as below: the argument may be one of the very views that change here.
void VTPlugInCore::setTopDictionary(value::Dictionary dictionary) {
    if (topDictionary_ && !topDictionary_->isSameObject(dictionary)) {
        setBundleInfoDictionary(dictionaryChanging(bundleInfoDictionary(), VTInfoKey::extension, dictionary));
    }
    topDictionary_ = std::move(dictionary);
    noteChange();
}

const value::Dictionary& VTPlugInCore::plugInDictionary() const {
    return plugInDictionary_ ? *plugInDictionary_ : noEntries();
}

void VTPlugInCore::setPlugInDictionary(value::Dictionary dictionary) {
    if (plugInDictionary_ && !plugInDictionary_->isSameObject(dictionary)) {
        if (isMultiplexed()) {
            const value::Dictionary* all = topDictionary().dictionary(VTInfoKey::multiple);
            const value::Dictionary changed =
                dictionaryChanging(all != nullptr ? *all : noEntries(), identifier(), dictionary);
            setTopDictionary(dictionaryChanging(topDictionary(), VTInfoKey::multiple, changed));
        } else {
            setTopDictionary(dictionary);
        }
    }
    plugInDictionary_ = std::move(dictionary);
    noteChange();
}

// --- Derived properties

value::Dictionary VTPlugInCore::attributes() const {
    const value::Dictionary* found = plugInDictionary().dictionary(VTInfoKey::attributes);
    return found != nullptr ? *found : noEntries();
}

std::string VTPlugInCore::path() const {
    std::string path = url();
    while (path.size() > 1 && path.ends_with('/')) path.pop_back();
    return path;
}

std::string VTPlugInCore::version() const {
    const value::Dictionary own = attributes();
    const value::Value* found = own.find(VTInfoKey::version);
    const bool isText = found != nullptr && (found->string() != nullptr || found->isNumber());
    return isText ? value::description(*found) : std::string{};
}

std::string VTPlugInCore::protocolSpec() const {
    return textIn(plugInDictionary(), VTInfoKey::protocol);
}

std::optional<value::Value> VTPlugInCore::sdkSpec() const {
    const value::Value* name = plugInDictionary().find(VTInfoKey::extensionPoint);
    return name != nullptr ? std::optional{*name} : std::nullopt;
}

std::string VTPlugInCore::embeddedProtocolSpec() const {
    const std::string* embedded = plugInDictionary().string(VTInfoKey::embeddedProtocol);
    return embedded != nullptr ? *embedded : protocolSpec();
}

bool VTPlugInCore::isAppExtension() const {
    return path().ends_with(".appex");
}

bool VTPlugInCore::isMultiplexed() const {
    return topDictionary().contains(VTInfoKey::multiple);
}

bool VTPlugInCore::isHybrid() const {
    return plugInDictionary().contains(VTInfoKey::embeddedCode);
}

bool VTPlugInCore::isDedicated() const {
    const value::Value* dedicated = plugInDictionary().find(VTInfoKey::dedicated);
    return dedicated != nullptr && dedicated->booleanValue();
}

bool VTPlugInCore::isData() const {
    const std::string* protocol = plugInDictionary().string(VTInfoKey::protocol);
    return protocol != nullptr && *protocol == kDataProtocol;
}

value::Date VTPlugInCore::timestamp() const {
    return value::Date{static_cast<double>(lastModified())};
}

bool VTPlugInCore::oldStyle() const {
    const value::Dictionary whole = bundleInfoDictionary();
    if (whole.contains(VTInfoKey::extension)) return false;
    if (!whole.contains(VTInfoKey::oldStyle)) VTAssertionFailure("unknown plug-in configuration style", kUnit);
    return true;
}

// --- Checks and hooks

std::optional<value::Error> VTPlugInCore::diagnose() const {
    constexpr auto kCode = VTErrorConfiguration;
    const auto missing = [](const char* key) {
        return VTErrorWithFormat(kCode, "missing \"{}\" key in Info.plist or SDK", key);
    };
    const value::Dictionary& own = plugInDictionary();

    if (const auto fault = sdkFault_.load()) return fault;
    if (identifier().empty()) {
        return VTError(kCode, "missing identifier (no KXExtensionIdentifier, nor even QFBundleIdentifier)");
    }
    if (textIn(own, VTInfoKey::protocol).empty()) return missing(VTInfoKey::protocol);
    if (attributes().empty()) return missing(VTInfoKey::attributes);
    if (isAppExtension()) {
        const std::string* principalClass = own.string(VTInfoKey::principalClass);
        if (principalClass == nullptr || *principalClass != kObjectClass) {
            return VTErrorWithFormat(kCode, "Application Extensions may not use the \"{}\" key",
                                     VTInfoKey::principalClass);
        }
    }
    if (own.contains(VTInfoKey::passProxy)) {
        return VTErrorWithFormat(kCode, "the \"{}\" key is not supported on this platform", VTInfoKey::passProxy);
    }
    if (isHybrid()) return VTError(kCode, "hybrid plug-ins are not supported on this platform");
    return {};
}

void VTPlugInCore::setAnnotation(std::string_view name, std::optional<value::Value> value) {
    if (const auto current = annotations()) setAnnotations(dictionaryChanging(*current, name, std::move(value)));
}

void VTPlugInCore::augmentInterface(const std::shared_ptr<void>& /*interface*/) const {}
