#include "platform/dravo/records/ExtensionPoints.h"

#include <algorithm>

#include "platform/dravo/scan/InfoFile.h"
#include "platform/sdk/SdkRegistry.h"

namespace dravo {

namespace {

constexpr std::size_t kRepeats = 4;  // of one name, on average, before it is taken for an attempt to keep us busy
constexpr std::size_t kSdkNamesLimit = 1000;
constexpr std::size_t kKnownLimit = 100'000;  // extension points; names that come and go must not pile up

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

const SdkParts::Part& SdkParts::of(const std::string& extensionPoint) {
    if (parts_.size() >= kKnownLimit) parts_.clear();
    const auto [at, isNew] = parts_.try_emplace(extensionPoint);
    if (isNew) at->second = read(extensionPoint);
    return at->second;
}

SdkParts::Part SdkParts::read(const std::string& extensionPoint) {
    const sdk::Part part = sdk::part(extensionPoint);
    isStale_ = isStale_ || part.isStale;
    PointNames names{kSdkNamesLimit};
    if (part.dictionary) names.collect(*part.dictionary, "");
    return {part.digest, names.take()};
}

std::uint64_t SdkParts::digestFor(const PlugInFacts& plugIn) {
    return plugIn.extensionPoint ? of(*plugIn.extensionPoint).digest : 0;
}

void SdkParts::note(std::vector<PlugInFacts>& plugIns) {
    for (PlugInFacts& plugIn : plugIns) plugIn.sdk = digestFor(plugIn);
}

bool SdkParts::areNotedIn(const std::vector<PlugInFacts>& plugIns) {
    return std::all_of(plugIns.begin(), plugIns.end(),
                       [this](const PlugInFacts& plugIn) { return plugIn.sdk == digestFor(plugIn); });
}

void SdkParts::refresh() {
    isStale_ = false;
    for (auto& [extensionPoint, part] : parts_) part = read(extensionPoint);
}

}  // namespace dravo
