#include "vtctl/verify/Keys.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "Velto/VTInfoKeys.h"
#include "platform/bundle/Bundle.h"

namespace verify {

namespace {

constexpr auto kFault = Severity::fault;
constexpr auto kOddity = Severity::oddity;

constexpr Key kKeys[] = {
    {Level::bundle, bundle::kIdentifierKey, kString, kFault},
    {Level::bundle, bundle::kVersionKey, kString | kNumber, kOddity},
    {Level::bundle, VTInfoKey::shortVersionString, kString | kNumber, kOddity},
    {Level::bundle, bundle::kNameKey, kString, kOddity},
    {Level::bundle, bundle::kDisplayNameKey, kString, kOddity},
    {Level::bundle, bundle::kExecutableKey, kString, kFault},
    {Level::bundle, VTInfoKey::extension, kDictionary, kFault},
    {Level::bundle, VTInfoKey::oldStyle, kAny, kOddity},
    {Level::bundle, VTInfoKey::moxService, kDictionary, kOddity},

    {Level::plugIn, "KXExtensionIdentifier", kString, kOddity},
    {Level::plugIn, VTInfoKey::extensionPoint, kString, kFault},
    {Level::plugIn, VTInfoKey::protocol, kString, kFault},
    {Level::plugIn, VTInfoKey::attributes, kDictionary, kFault},
    {Level::plugIn, VTInfoKey::hostEntitlement, kString, kFault},
    {Level::plugIn, VTInfoKey::dedicated, kBoolean, kOddity},
    {Level::plugIn, VTInfoKey::shared, kString | kArray, kOddity},
    {Level::plugIn, VTInfoKey::principalClass, kString, kOddity},
    {Level::plugIn, VTInfoKey::multiple, kDictionary, kFault},
    {Level::plugIn, VTInfoKey::hubProtocolVersion, kNumber, kOddity},
    {Level::plugIn, VTInfoKey::embeddedProtocol, kString, kOddity},
    {Level::plugIn, VTInfoKey::cleanTimeout, kNumber, kOddity},
    {Level::plugIn, VTInfoKey::passProxy, kNone, kFault},
    {Level::plugIn, VTInfoKey::embeddedCode, kNone, kFault},

    {Level::attributes, VTInfoKey::version, kString | kNumber, kOddity},
    {Level::attributes, VTInfoKey::pointName, kString | kArray, kOddity},
    {Level::attributes, VTInfoKey::requestsOpenAccess, kBoolean, kOddity},
    {Level::attributes, VTInfoKey::format, kAny, kOddity},

    {Level::service, "EnvironmentVariables", kDictionary, kOddity},

    {Level::plugInEntitlements, "halvern.developer.replace-plugin", kString | kArray, kOddity},
    {Level::plugInEntitlements, "halvern.developer.auto-elect-plugin", kBoolean, kOddity},

    {Level::hostEntitlements, "halvern.developer.velto.allowedplugins", kDictionary, kFault},
    {Level::hostEntitlements, "halvern.private.velto.manager", kBoolean, kOddity},
};

constexpr std::pair<Kind, const char*> kKindNames[] = {
    {kString, "string"}, {kNumber, "number"}, {kBoolean, "boolean"}, {kArray, "array"}, {kDictionary, "dictionary"},
};

}  // namespace

std::span<const Key> keys() {
    return kKeys;
}

const Key* findKey(Level level, const std::string& name) {
    const auto* const found = std::find_if(std::begin(kKeys), std::end(kKeys),
                                           [&](const Key& key) { return key.level == level && key.name == name; });
    return found != std::end(kKeys) ? found : nullptr;
}

std::set<std::string> namesAt(Level level) {
    std::set<std::string> names;
    for (const Key& key : kKeys) {
        if (key.level == level) names.emplace(key.name);
    }
    return names;
}

const char* nameOf(Level level) {
    switch (level) {
        case Level::bundle: return "Info.plist";
        case Level::plugIn: return VTInfoKey::extension;
        case Level::attributes: return VTInfoKey::attributes;
        case Level::service: return VTInfoKey::moxService;
        case Level::plugInEntitlements: return "Entitlements.plist of a plug-in";
        case Level::hostEntitlements: return "Entitlements.plist of a host";
    }
    return "";
}

std::string kindsOf(const Key& key) {
    if (key.kinds == kAny) return "anything";
    if (key.kinds == kNone) return "nothing";
    std::string words;
    for (const auto& [kind, name] : kKindNames) {
        if ((key.kinds & kind) != 0) words += (words.empty() ? "" : " or ") + std::string{name};
    }
    return words;
}

std::string kindOf(const value::Value& value) {
    const std::uint8_t bit = bitOf(value);
    for (const auto& [kind, name] : kKindNames) {
        if (bit == kind) return (kind == kArray ? "an " : "a ") + std::string{name};
    }
    return "data or a date";
}

std::uint8_t bitOf(const value::Value& value) {
    if (value.string() != nullptr) return kString;
    if (value.array() != nullptr) return kArray;
    if (value.dictionary() != nullptr) return kDictionary;
    if (value == value::Value{true} || value == value::Value{false}) return kBoolean;
    return value.isNumber() ? kNumber : 0;
}

}  // namespace verify
