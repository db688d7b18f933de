#include "platform/dravo/scan/BundleReading.h"

#include "platform/bundle/Bundle.h"
#include "platform/dravo/records/ExtensionPoints.h"
#include "platform/dravo/scan/Bounds.h"
#include "platform/mox/Encoder.h"
#include "platform/text/Format.h"

namespace dravo {

namespace {

bool isSensible(const std::string& text) {
    return !text.empty() && text.size() <= kTextLimit && text.find('\0') == std::string::npos;
}

PlugInFacts plugIn(const value::Dictionary& info, const value::Dictionary* description, std::string identifier) {
    PlugInFacts facts;
    if (description) facts.extensionPoint = sensibleText(*description, kExtensionPointKey);
    PointNames names{kPointNamesLimit};
    names.collect(info, identifier);
    facts.anyPoint = names.tooMany();
    if (!facts.anyPoint) facts.pointNames = names.take();
    if (facts.extensionPoint) std::erase(facts.pointNames, *facts.extensionPoint);
    std::size_t bytes = 0;
    for (const std::string& name : facts.pointNames) bytes += name.size();
    if (bytes > kTextLimit) {
        facts.anyPoint = true;
        facts.pointNames.clear();
    }
    facts.pointNames.shrink_to_fit();
    facts.identifier = std::move(identifier);
    return facts;
}

void describeMultiple(const value::Dictionary& info, const value::Value& multiple, BundleFacts& facts) {
    const value::Dictionary* const descriptions = multiple.dictionary();
    if (!descriptions || descriptions->empty()) {
        facts.refusal = "the \"Multiple\" key holds no dictionary of plug-ins";
        return;
    }
    // Each plug-in's description travels to hosts with the whole of the bundle's.
    mox::Encoder whole;
    whole.value(info);
    if (whole.size() > kDescriptionsLimit / descriptions->size()) {
        facts.refusal = text::format("{} plug-ins described by {} bytes each, more than {} in all",
                                     descriptions->size(), whole.size(), kDescriptionsLimit);
        return;
    }
    for (const auto& entry : *descriptions) {
        const value::Dictionary* const description = entry.value.dictionary();
        if (description && isSensible(entry.key)) {
            facts.plugIns.push_back(plugIn(info, description, entry.key));
        } else {
            facts.remark = "ignoring malformed entries of \"Multiple\"";
        }
    }
    if (facts.plugIns.empty()) facts.refusal = "no sound entry in \"Multiple\"";
}

}  // namespace

std::optional<std::string> sensibleText(const value::Dictionary& dictionary, const char* key) {
    const std::string* const text = dictionary.string(key);
    if (!text || !isSensible(*text)) return {};
    return *text;
}

std::optional<std::string> displayName(const value::Dictionary& info) {
    auto name = sensibleText(info, bundle::kDisplayNameKey);
    return name ? name : sensibleText(info, bundle::kNameKey);
}

void describe(const InfoFile& info, BundleFacts& facts) {
    const value::Dictionary& dictionary = info.dictionary;
    facts.digest = info.digest;
    if (auto excess = excessOf(dictionary)) {
        facts.refusal = *std::move(excess);
        return;
    }
    facts.identifier = bundle::identifierOf(dictionary);
    facts.version = bundle::versionOf(dictionary);
    facts.displayName = displayName(dictionary);
    facts.shortName = sensibleText(dictionary, bundle::kNameKey);
    const value::Dictionary* const top = dictionary.dictionary(kPlugInKey);
    if (const value::Value* const multiple = top ? top->find(kMultipleKey) : nullptr) {
        describeMultiple(dictionary, *multiple, facts);
        return;
    }
    std::optional<std::string> identifier;
    if (top) identifier = sensibleText(*top, kIdentifierKey);
    if (!identifier && !facts.identifier.empty()) identifier = facts.identifier;
    if (identifier) {
        facts.plugIns.push_back(plugIn(dictionary, top, std::move(*identifier)));
        facts.plugIns.shrink_to_fit();
    } else {
        facts.refusal = "no usable identifier (neither KXExtensionIdentifier nor QFBundleIdentifier)";
    }
}

}  // namespace dravo
