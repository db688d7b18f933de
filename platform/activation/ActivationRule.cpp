#include "platform/activation/ActivationRule.h"

#include <algorithm>

#include "platform/bundle/Bundle.h"
#include "platform/effort/Effort.h"
#include "platform/types/TypeHierarchy.h"

namespace activation {

namespace {

constexpr std::size_t kMostKeys = bundle::kListLimit;  // the registry refuses more, but an SDK may bring them
constexpr std::size_t kMostTypes = 256;

constexpr std::uint64_t kUnitsAType = 50;  // to find what it conforms to

struct Key {
    std::int64_t most;
    std::int64_t items = 0;
    std::size_t lastTaker = 0;  // the number of the item that counted last
};

// Nothing when the rule is malformed.
std::optional<std::vector<Key>> keysOf(const value::Dictionary& rule) {
    if (rule.size() > kMostKeys) return {};
    std::vector<Key> keys;
    keys.reserve(rule.size());
    for (const value::Dictionary::Entry& entry : rule) {
        const auto most = entry.value.isNumber() ? entry.value.integerValue() : std::nullopt;
        if (!most) return {};
        keys.push_back({*most});
    }
    return keys;
}

// The keys that a type conforms to, by their places in the rule.
std::vector<std::size_t> takersOf(std::string_view type, const value::Dictionary& rule) {
    std::vector<std::size_t> takers;
    types::forEachSupertype(type, [&](std::string_view supertype) {
        const auto before = [](const value::Dictionary::Entry& entry, std::string_view key) { return entry.key < key; };
        const auto* const at = std::lower_bound(rule.begin(), rule.end(), supertype, before);
        if (at != rule.end() && at->key == supertype) takers.push_back(static_cast<std::size_t>(at - rule.begin()));
    });
    return takers;
}

}  // namespace

Items::Items(const value::Dictionary& items) {
    const value::Array* const elements = items.array("items");
    if (elements == nullptr || elements->empty()) isSound_ = false;
    if (elements == nullptr) return;
    for (const value::Value& element : *elements) {
        if (isSound_) readItem(element);
    }
}

Items::Items(mox::View items) {
    const auto found = items.plain().find("items");
    const auto elements = found ? std::optional{found->plain()} : std::nullopt;
    if (!elements || !elements->isArray() || elements->count() == 0) isSound_ = false;
    if (elements) {
        elements->forEachElement([this](mox::View element) {
            readItem(element.plain());
            return isSound_;
        });
    }
}

void Items::readItem(const value::Value& item) {
    const value::Array* const types = item.dictionary() == nullptr ? nullptr : item.dictionary()->array("types");
    if (types != nullptr) {
        for (const value::Value& type : *types) {
            addType(type.string() != nullptr ? std::optional<std::string_view>{*type.string()} : std::nullopt);
        }
    }
    endItem();
}

void Items::readItem(mox::View item) {
    if (const auto types = item.find("types")) {
        types->plain().forEachElement([this](mox::View type) { addType(type.plain().string()); });
    }
    endItem();
}

void Items::addType(std::optional<std::string_view> type) {
    static_cast<void>(effort::take(kUnitsAType));
    if (!type) isSound_ = false;
    if (!isSound_) return;
    const auto [at, isNew] = places_.try_emplace(*type, static_cast<std::uint8_t>(types_.size()));
    if (isNew) {
        isSound_ = types_.size() < kMostTypes;
        types_.push_back(*type);
        isOfItem_.push_back(false);
    }
    if (isOfItem_[at->second]) return;
    isOfItem_[at->second] = true;
    item_.push_back(at->second);
}

void Items::endItem() {
    if (item_.empty()) isSound_ = false;
    for (const std::uint8_t type : item_) isOfItem_[type] = false;
    std::sort(item_.begin(), item_.end());
    if (isSound_) ++counts_[item_];
    item_.clear();
}

std::uint64_t Items::price() const {
    std::uint64_t price = 1;
    if (!isSound_) return price;
    price += types_.size() * kUnitsAType;
    for (const auto& [types, count] : counts_) price += 1 + types.size();
    return price;
}

bool evaluate(const value::Value& rule, const Items& items) {
    if (rule.kind() == value::Kind::boolean) return rule.booleanValue();
    const value::Dictionary* const limits = rule.dictionary();
    if (limits == nullptr || !items.isSound_ || !effort::take(items.price() + limits->size())) return false;

    auto keys = keysOf(*limits);
    if (!keys) return false;
    std::vector<std::vector<std::size_t>> takers;
    takers.reserve(items.types_.size());
    for (const std::string_view type : items.types_) takers.push_back(takersOf(type, *limits));
    std::size_t item = 0;
    for (const auto& [types, count] : items.counts_) {
        ++item;
        bool isTaken = false;
        for (const std::uint8_t type : types) {
            if (!takers[type].empty() && !effort::take(takers[type].size())) return false;
            for (const std::size_t taker : takers[type]) {
                Key& key = (*keys)[taker];
                isTaken = true;
                if (key.lastTaker == item) continue;
                key.lastTaker = item;
                key.items += count;
            }
        }
        if (!isTaken) return false;
    }
    return std::all_of(keys->begin(), keys->end(), [](const Key& key) { return key.items <= key.most; });
}

bool evaluate(const value::Value& rule, const value::Dictionary& items) {
    return evaluate(rule, Items{items});
}

}  // namespace activation
