#include "platform/dravo/ExtensionPoints.h"

#include <algorithm>

#include "platform/dravo/Facts.h"
#include "platform/dravo/InfoFile.h"
#include "platform/paths/Paths.h"
#include "platform/sdk/SdkRegistry.h"

namespace dravo {

namespace {

constexpr std::size_t kRepeats = 4;  // of one name, on average, before it is taken for an attempt to keep us busy
constexpr std::size_t kSdkNamesLimit = 1000;
constexpr std::size_t kKnownLimit = 100'000;  // extension points; names that come and go must not pile up

std::vector<std::string> readNames(const std::string& extensionPoint) {
    PointNames names{kSdkNamesLimit};
    const auto registered = sdk::entry(extensionPoint);
    if (registered && *registered) names.collect(**registered, "");
    // Takes precedence where it is set; collecting both loses nothing.
    if (const auto directory = sdk::testDirectory()) {
        if (const auto entry = sdk::entryIn(*directory, extensionPoint)) names.collect(*entry, "");
    }
    return names.take();
}

}  // namespace

void PointNames::collect(const value::Dictionary& info, const std::string& identifier) {
    addTexts(info.find(kPointNameKey));
    const value::Dictionary* const top = info.dictionary(kPlugInKey);
    if (!top) return;
    addAttribute(*top);
    const value::Dictionary* const multiple = top->dictionary(kMultipleKey);
    if (!multiple) return;
    if (!identifier.empty()) {
        if (const auto* const description = multiple->dictionary(identifier)) addAttribute(*description);
        return;
    }
    for (const auto& entry : *multiple) {
        if (const value::Dictionary* const description = entry.value.dictionary()) addAttribute(*description);
    }
}

void PointNames::addAttribute(const value::Dictionary& description) {
    if (const auto* const attributes = description.dictionary(kAttributesKey))
        addTexts(attributes->find(kPointNameKey));
}

void PointNames::addTexts(const value::Value* value) {
    if (!value) return;
    addText(*value);
    if (const value::Array* const array = value->array()) {
        for (const value::Value& element : *array) {
            if (tooMany_) return;
            addText(element);
        }
    }
}

void PointNames::addText(const value::Value& value) {
    if (tooMany_) return;
    const std::string* const text = value.string();
    if (!text || std::find(names_.begin(), names_.end(), *text) != names_.end()) {
        tooMany_ = ++looked_ > kRepeats * most_;
        return;
    }
    tooMany_ = names_.size() == most_ || text->size() > kTextLimit;
    if (!tooMany_) names_.push_back(*text);
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
    if (auto directory = sdk::testDirectory()) directories.push_back(*std::move(directory));
    return directories;
}

}  // namespace dravo
