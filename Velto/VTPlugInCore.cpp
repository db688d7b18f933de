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

struct VTPlugInCore::Decoded {
    value::Dictionary bundleInfo;
    value::Dictionary top;
    value::Dictionary plugIn;
};

VTPlugInCore::~VTPlugInCore() {
    delete decoded_.load(std::memory_order_acquire);
    delete stored_.load(std::memory_order_acquire);
}

const VTPlugInCore::Stored& VTPlugInCore::stored() const {
    static const Stored nothing;
    const Stored* const known = stored_.load(std::memory_order_acquire);
    return known != nullptr ? *known : nothing;
}

VTPlugInCore::Stored& VTPlugInCore::changeable() {
    if (Stored* const known = stored_.load(std::memory_order_acquire)) return *known;
    auto made = std::make_unique<Stored>();
    Stored* first = nullptr;
    if (!stored_.compare_exchange_strong(first, made.get(), std::memory_order_acq_rel)) return *first;
    return *made.release();
}

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
    return uuid() == (other.isOwn(kUuid) ? other.stored().uuid.load() : other.viewUuid_);
}

std::size_t VTPlugInCore::hash() const {
    return std::hash<value::Uuid>{}(uuid());
}

value::Uuid VTPlugInCore::uuid() const {
    if (!isOwn(kUuid)) return viewUuid_;
    const std::optional<value::Uuid> known = stored().uuid.load();
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

void VTPlugInCore::setupWithImage(VTRecordImage image, const value::Uuid& uuid) {
    image_ = std::move(image);
    viewUuid_ = uuid;
    own_.store(0, std::memory_order_release);
}

value::Dictionary VTPlugInCore::normalizeInfoDictionary(const value::Dictionary& bundleInfo) const {
    return bundleInfo;
}

bool VTPlugInCore::setDictionaries(const value::Value& bundleInfo) {
    const value::Dictionary* whole = bundleInfo.dictionary();
    if (whole == nullptr) return false;
    setBundleInfoDictionary(*whole);  // and with it all three are the record's own

    const value::Dictionary* top = whole->dictionary(VTInfoKey::extension);
    Stored& own = changeable();
    own.topDictionary = top != nullptr ? std::optional{*top} : std::nullopt;
    own.plugInDictionary.reset();
    noteChange();
    if (top == nullptr) return false;

    own.plugInDictionary = *top;
    if (isMultiplexed()) {
        const value::Dictionary* multiple = top->dictionary(VTInfoKey::multiple);
        const value::Dictionary* entry = multiple != nullptr ? multiple->dictionary(identifier()) : nullptr;
        own.plugInDictionary = entry != nullptr ? std::optional{*entry} : std::nullopt;
    }
    return own.plugInDictionary.has_value();
}

// --- The two views and the dictionary around them

const VTPlugInCore::Decoded& VTPlugInCore::decoded() const {
    if (const Decoded* known = decoded_.load(std::memory_order_acquire)) return *known;
    auto made = std::make_unique<Decoded>();
    made->bundleInfo = *image_->bundleInfo().toValue().dictionary();
    if (const value::Dictionary* top = made->bundleInfo.dictionary(VTInfoKey::extension)) made->top = *top;
    made->plugIn = *image_->plugIn().toValue().dictionary();
    const Decoded* first = nullptr;
    if (!decoded_.compare_exchange_strong(first, made.get(), std::memory_order_acq_rel)) return *first;
    return *made.release();
}

void VTPlugInCore::takeDictionariesOver() {
    if (isOwn(kDictionaries)) return;
    const Decoded& known = decoded();
    Stored& own = changeable();
    own.bundleInfoDictionary.store(known.bundleInfo);
    own.topDictionary = known.top;
    own.plugInDictionary = known.plugIn;
    own_.fetch_or(kDictionaries, std::memory_order_acq_rel);
}

value::Dictionary VTPlugInCore::bundleInfoDictionary() const {
    return isOwn(kDictionaries) ? stored().bundleInfoDictionary.load() : decoded().bundleInfo;
}

void VTPlugInCore::setBundleInfoDictionary(value::Dictionary value) {
    takeDictionariesOver();
    change(kDictionaries, &Stored::bundleInfoDictionary, std::move(value));
}

const value::Dictionary& VTPlugInCore::topDictionary() const {
    if (!isOwn(kDictionaries)) return decoded().top;
    return stored().topDictionary ? *stored().topDictionary : noEntries();
}

// By value, as below: the argument may be one of the very views that change here.
void VTPlugInCore::setTopDictionary(value::Dictionary dictionary) {
    takeDictionariesOver();
    Stored& own = changeable();
    if (own.topDictionary && !own.topDictionary->isSameObject(dictionary)) {
        setBundleInfoDictionary(dictionaryChanging(bundleInfoDictionary(), VTInfoKey::extension, dictionary));
    }
    own.topDictionary = std::move(dictionary);
    noteChange();
}

const value::Dictionary& VTPlugInCore::plugInDictionary() const {
    if (!isOwn(kDictionaries)) return decoded().plugIn;
    return stored().plugInDictionary ? *stored().plugInDictionary : noEntries();
}

void VTPlugInCore::setPlugInDictionary(value::Dictionary dictionary) {
    takeDictionariesOver();
    Stored& own = changeable();
    if (own.plugInDictionary && !own.plugInDictionary->isSameObject(dictionary)) {
        if (isMultiplexed()) {
            const value::Dictionary* all = topDictionary().dictionary(VTInfoKey::multiple);
            const value::Dictionary changed =
                dictionaryChanging(all != nullptr ? *all : noEntries(), identifier(), dictionary);
            setTopDictionary(dictionaryChanging(topDictionary(), VTInfoKey::multiple, changed));
        } else {
            setTopDictionary(dictionary);
        }
    }
    own.plugInDictionary = std::move(dictionary);
    noteChange();
}

std::optional<std::string> VTPlugInCore::containingUrl() const {
    if (isOwn(kContainingUrl)) return stored().containingUrl.load();
    const std::string_view path = image_->containingPath();
    return path.empty() ? std::nullopt : std::optional{std::string{path}};
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
    if (plugInListSize(VTInfoKey::dedicated) > 0 || plugInHasDictionary(VTInfoKey::dedicated)) return false;
    const auto dedicated = plugInValue(VTInfoKey::dedicated);
    return dedicated && dedicated->booleanValue();
}

bool VTPlugInCore::isData() const {
    if (!isOwn(kDictionaries)) {
        const auto protocol = image_->inPlugIn(VTInfoKey::protocol);
        return protocol && protocol->string() == kDataProtocol;
    }
    return textIn(plugInDictionary(), VTInfoKey::protocol) == kDataProtocol;
}

std::optional<value::Value> VTPlugInCore::plugInValue(std::string_view key) const {
    if (!isOwn(kDictionaries)) {
        const auto found = image_->inPlugIn(key);
        return found ? std::optional{found->toValue()} : std::nullopt;
    }
    const value::Value* const found = plugInDictionary().find(key);
    return found != nullptr ? std::optional{*found} : std::nullopt;
}

std::size_t VTPlugInCore::plugInListSize(std::string_view key) const {
    if (!isOwn(kDictionaries)) {
        const auto found = image_->inPlugIn(key);
        return found && found->isArray() ? found->count() : 0;
    }
    const value::Array* const list = plugInDictionary().array(key);
    return list != nullptr ? list->size() : 0;
}

bool VTPlugInCore::plugInHasDictionary(std::string_view key) const {
    if (!isOwn(kDictionaries)) {
        const auto found = image_->inPlugIn(key);
        return found && found->isDictionary();
    }
    return plugInDictionary().dictionary(key) != nullptr;
}

std::optional<std::string> VTPlugInCore::bundleInfoText(std::string_view key) const {
    if (!isOwn(kDictionaries)) {
        const auto found = image_->inBundleInfo(key);
        const auto text = found ? found->string() : std::nullopt;
        return text ? std::optional{std::string{*text}} : std::nullopt;
    }
    const value::Dictionary info = bundleInfoDictionary();
    const std::string* const text = info.string(key);
    return text != nullptr ? std::optional{*text} : std::nullopt;
}

std::size_t VTPlugInCore::encodedBundleInfoSize() const {
    if (!isOwn(kDictionaries)) return image_->bundleInfo().size();
    return mox::encodedSize(value::Value{bundleInfoDictionary()});
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

    if (auto fault = stored().sdkFault.load()) return fault;
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
