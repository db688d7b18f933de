#include "platform/dravo/ExtensionPoints.h"

#include <algorithm>
#include <cstdlib>

#include "platform/dravo/InfoFile.h"
#include "platform/paths/Paths.h"
#include "platform/sdk/SdkRegistry.h"

namespace dravo {

namespace {

constexpr std::size_t kKnownLimit = 100'000;  // extension points; names that come and go must not pile up

void addText(const value::Value& value, std::vector<std::string>& names) {
    const std::string* const text = value.string();
    if (text && std::find(names.begin(), names.end(), *text) == names.end()) names.push_back(*text);
}

void addTexts(const value::Value* value, std::vector<std::string>& names) {
    if (!value) return;
    addText(*value, names);
    if (const value::Array* const array = value->array()) {
        for (const value::Value& element : *array) addText(element, names);
    }
}

void addAttribute(const value::Dictionary& description, std::vector<std::string>& names) {
    if (const auto* const attributes = description.dictionary(kAttributesKey)) {
        addTexts(attributes->find(kPointNameKey), names);
    }
}

const char* testDirectory() {
    return std::getenv("VTTEST_SDK");
}

std::vector<std::string> readNames(const std::string& extensionPoint) {
    std::vector<std::string> names;
    if (const auto entry = sdk::entry(extensionPoint)) collectPointNames(*entry, "", names);
    // Takes precedence where it is set; collecting both loses nothing.
    if (const char* const directory = testDirectory()) {
        if (const auto entry = sdk::entryIn(directory, extensionPoint)) collectPointNames(*entry, "", names);
    }
    return names;
}

}  // namespace

void collectPointNames(const value::Dictionary& info, const std::string& identifier, std::vector<std::string>& names) {
    addTexts(info.find(kPointNameKey), names);
    const value::Dictionary* const top = info.dictionary(kPlugInKey);
    if (!top) return;
    addAttribute(*top, names);
    const value::Dictionary* const multiple = top->dictionary(kMultipleKey);
    if (!multiple) return;
    for (const auto& entry : *multiple) {
        if (!identifier.empty() && entry.key != identifier) continue;
        if (const value::Dictionary* const description = entry.value.dictionary()) addAttribute(*description, names);
    }
}

const std::vector<std::string>& SdkPointNames::of(const std::string& extensionPoint) {
    if (names_.size() >= kKnownLimit) names_.clear();
    const auto [at, isNew] = names_.try_emplace(extensionPoint);
    if (isNew) at->second = readNames(extensionPoint);
    return at->second;
}

bool SdkPointNames::refresh() {
    bool changed = false;
    for (auto& [extensionPoint, names] : names_) {
        auto now = readNames(extensionPoint);
        if (now == names) continue;
        names = std::move(now);
        changed = true;
    }
    return changed;
}

std::vector<std::string> SdkPointNames::directories() {
    std::vector<std::string> directories{paths::directories().systemVolume + "/SDKs"};
    if (const char* const directory = testDirectory()) directories.emplace_back(directory);
    return directories;
}

}  // namespace dravo
