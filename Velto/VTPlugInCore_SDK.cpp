// The dictionaries of a record, completed by what its extension point registers for all its plug-ins.

#include <unordered_set>
#include <utility>

#include "Velto/VTError.h"
#include "Velto/VTInfoKeys.h"
#include "Velto/VTPlugInCore.h"
#include "Velto/VTProtocol.h"
#include "platform/logging/Log.h"
#include "platform/sdk/SdkRegistry.h"
#include "platform/text/Described.h"

namespace {

constexpr char kObjectClass[] = "KXObject";
constexpr char kBundleItself[] = ".";
constexpr char kFirstVersion[] = "1";

void setDefault(value::Dictionary::Builder& dictionary, std::string_view key, value::Value value) {
    if (!dictionary.contains(key)) dictionary.set(key, std::move(value));
}

// Keeps the paths that are not in the list yet. The set refers to texts that the values keep alive.
void addPaths(const value::Value& shared, value::Array::Storage& paths, std::unordered_set<std::string_view>& known) {
    const auto add = [&](const value::Value& path) {
        if (path.string() != nullptr && known.insert(*path.string()).second) paths.push_back(path);
    };
    if (shared.array() == nullptr) return add(shared);
    for (const value::Value& path : *shared.array()) add(path);
}

sdk::Part lookUp(const std::string& name) {
    sdk::Part part = sdk::part(name);
    if (!part.dictionary && !part.fault) logging::notice(text::format("plug-in sdk \"{}\" not registered", name));
    return part;
}

}  // namespace

void VTPlugInCore::resolveSDK() {
    if (const std::optional<value::Value> spec = sdkSpec()) {
        const std::string* name = spec->string();
        if (name == nullptr) {
            logging::notice(text::format("invalid SDK key:{}", *spec));
            return;
        }
        const sdk::Part sdk = lookUp(*name);
        changeable().sdkDigest.store(sdk.digest);
        if (sdk.fault) {
            changeable().sdkFault.store(VTErrorWithFormat(VTErrorConfiguration,
                                                          "the SDK of its extension point cannot be used: {}",
                                                          sdk.fault->localizedDescription()));
            return;
        }
        if (sdk.dictionary && !setDictionaries(mergeDictionary(*sdk.dictionary, bundleInfoDictionary()))) return;
    }
    canonicalize();
}

std::optional<value::Dictionary> VTPlugInCore::readSDKDictionary(const std::string& name) {
    return lookUp(name).dictionary;
}

value::Dictionary VTPlugInCore::mergeDictionary(const value::Dictionary& sdk, const value::Dictionary& target) const {
    value::Dictionary::Builder merged{target};
    for (const auto& [key, theirs] : sdk) {
        const value::Value* own = target.find(key);
        if (own == nullptr || sdkOverridesKey(key)) {
            merged.set(key, theirs);
        } else if (key == VTInfoKey::shared) {
            merged.set(key, mergeSharedResources(theirs, *own));
        } else if (theirs.dictionary() != nullptr && own->dictionary() != nullptr) {
            merged.set(key, mergeDictionary(*theirs.dictionary(), *own->dictionary()));
        }
    }
    return std::move(merged).build();
}

bool VTPlugInCore::sdkOverridesKey(std::string_view key) const {
    return key == VTInfoKey::cleanTimeout;
}

value::Array VTPlugInCore::mergeSharedResources(const value::Value& sdk, const value::Value& target) const {
    value::Array::Storage paths;
    std::unordered_set<std::string_view> known;
    addPaths(target, paths, known);
    addPaths(sdk, paths, known);
    return value::Array{std::move(paths)};
}

void VTPlugInCore::canonicalize() {
    const value::Dictionary whole = bundleInfoDictionary();
    value::Dictionary::Builder plugIn{plugInDictionary()};
    value::Dictionary::Builder own{attributes()};

    if (isAppExtension()) {
        setDefault(plugIn, VTInfoKey::protocol, kObjectClass);
        setDefault(plugIn, VTInfoKey::principalClass, kObjectClass);
        plugIn.set(VTInfoKey::shared, value::Array{kBundleItself});  // whatever bundle and SDK say
    }
    own.set(VTInfoKey::format, plugIn.contains(VTInfoKey::embeddedCode) ? "hybrid" : "standard");
    if (!own.contains(VTInfoKey::version)) {
        const value::Value* ofBundle = whole.find(VTInfoKey::shortVersionString);
        const bool isVersion = ofBundle != nullptr && (ofBundle->string() != nullptr || ofBundle->isNumber());
        own.set(VTInfoKey::version, isVersion ? *ofBundle : kFirstVersion);
    }
    plugIn.set(VTInfoKey::attributes, std::move(own).build());

    // Installed once it is complete, since values never change: the outer dictionaries then hold the same.
    setPlugInDictionary(std::move(plugIn).build());
}
