#include "platform/dravo/scan/Bounds.h"

#include "platform/bundle/Bundle.h"
#include "platform/dravo/scan/InfoFile.h"
#include "platform/mox/Encoder.h"
#include "platform/text/Format.h"

namespace dravo {

namespace {

using Excess = std::optional<std::string>;

Excess tooMuch(const std::string& key, std::size_t count, const char* ofWhat, std::size_t limit) {
    constexpr std::size_t kQuoted = 100;
    return text::format("\"{}\" has {} {}, more than {}", key.substr(0, kQuoted), count, ofWhat, limit);
}

// The lists in a value, at every depth; no deeper than a property list goes. A list in a list goes by that one's key.
Excess excessOfLists(const std::string& key, const value::Value& value) {
    if (const value::Array* const list = value.array()) {
        if (list->size() > bundle::kListLimit) return tooMuch(key, list->size(), "elements", bundle::kListLimit);
        for (const value::Value& element : *list) {
            if (auto excess = excessOfLists(key, element)) return excess;
        }
    } else if (const value::Dictionary* const dictionary = value.dictionary()) {
        for (const auto& entry : *dictionary) {
            if (auto excess = excessOfLists(entry.key, entry.value)) return excess;
        }
    }
    return {};
}

Excess excessOfText(const std::string& key, const value::Value& value) {
    const std::string* const text = value.string();
    if (!text || text->size() <= kComparedTextLimit) return {};
    return tooMuch(key, text->size(), "bytes", kComparedTextLimit);
}

// What a rule may meet; lists have been counted.
Excess excessOfCompared(const value::Dictionary& compared) {
    for (const auto& entry : compared) {
        if (auto excess = excessOfText(entry.key, entry.value)) return excess;
        if (const value::Array* const list = entry.value.array()) {
            for (const value::Value& element : *list) {
                if (auto excess = excessOfText(entry.key, element)) return excess;
            }
        }
        const value::Dictionary* const rule = entry.key == kPlugInKey ? nullptr : entry.value.dictionary();
        if (rule && rule->size() > bundle::kListLimit) {
            return tooMuch(entry.key, rule->size(), "entries", bundle::kListLimit);
        }
    }
    return {};
}

Excess excessOfAttributes(const value::Dictionary& description) {
    const value::Dictionary* const attributes = description.dictionary(kAttributesKey);
    return attributes ? excessOfCompared(*attributes) : Excess{};
}

}  // namespace

std::optional<std::string> excessOf(const value::Dictionary& info) {
    if (auto excess = excessOfLists({}, info)) return excess;
    if (auto excess = excessOfCompared(info)) return excess;
    const value::Dictionary* const top = info.dictionary(kPlugInKey);
    if (!top) return {};
    if (auto excess = excessOfAttributes(*top)) return excess;
    const value::Dictionary* const multiple = top->dictionary(kMultipleKey);
    if (!multiple) return {};
    if (multiple->size() > kMultipleLimit) return tooMuch(kMultipleKey, multiple->size(), "plug-ins", kMultipleLimit);
    for (const auto& entry : *multiple) {
        const value::Dictionary* const description = entry.value.dictionary();
        if (!description) continue;
        if (auto excess = excessOfAttributes(*description)) return excess;
    }
    return {};
}

std::optional<std::string> excessOfEntitlements(const value::Dictionary& entitlements) {
    if (const std::size_t bytes = mox::encodedSize(entitlements); bytes > kEntitlementsLimit) {
        return text::format("{} bytes of entitlements, more than {}", bytes, kEntitlementsLimit);
    }
    return excessOfLists({}, entitlements);
}

}  // namespace dravo
