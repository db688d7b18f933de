#include "platform/activation/ActivationRule.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/bundle/Bundle.h"
#include "platform/types/TypeHierarchy.h"

namespace activation {

namespace {

constexpr std::size_t kMostKeys = bundle::kListLimit;  // the registry refuses more, but an SDK may bring them
constexpr std::size_t kMostTypes = 256;

// Counts the items that each key of a rule takes. Which keys a type conforms to is found once for each type, so that
// a thousand pictures cost hardly more than one.
class Tally {
public:
    // Nothing when the rule is malformed.
    static std::optional<Tally> forRule(const value::Dictionary& rule) {
        if (rule.size() > kMostKeys) return {};
        Tally tally;
        for (const value::Dictionary::Entry& entry : rule) {
            const auto most = entry.value.isNumber() ? entry.value.integerValue() : std::nullopt;
            if (!most) return {};
            tally.numbers_.emplace(entry.key, tally.keys_.size());
            tally.keys_.push_back({*most});
        }
        return tally;
    }

    // Whether the item is well formed and some key takes it.
    bool take(const value::Value& item) {
        const value::Array* types = item.dictionary() == nullptr ? nullptr : item.dictionary()->array("types");
        if (types == nullptr) return false;
        std::vector<bool> takers(keys_.size());
        bool taken = false;
        for (const value::Value& element : *types) {
            const std::string* type = element.string();
            const std::vector<std::size_t>* keys = type == nullptr ? nullptr : keysOf(*type);
            if (keys == nullptr) return false;
            for (const std::size_t key : *keys) takers[key] = taken = true;
        }
        for (std::size_t i = 0; i < keys_.size(); ++i) keys_[i].items += takers[i] ? 1 : 0;
        return taken;
    }

    bool isWithinLimits() const {
        for (const Key& key : keys_) {
            if (key.items > key.most) return false;
        }
        return true;
    }

private:
    struct Key {
        std::int64_t most;
        std::int64_t items = 0;
    };

    // The keys that a type conforms to, by their places; null when there are too many types.
    const std::vector<std::size_t>* keysOf(std::string_view type) {
        if (const auto known = keysOfType_.find(type); known != keysOfType_.end()) return &known->second;
        if (keysOfType_.size() == kMostTypes) return nullptr;
        std::vector<std::size_t> keys;
        types::forEachSupertype(type, [&](std::string_view supertype) {
            if (const auto key = numbers_.find(supertype); key != numbers_.end()) keys.push_back(key->second);
        });
        return &keysOfType_.emplace(type, std::move(keys)).first->second;
    }

    std::vector<Key> keys_;
    std::unordered_map<std::string_view, std::size_t> numbers_;  // the rule's texts to places in keys_
    std::unordered_map<std::string_view, std::vector<std::size_t>> keysOfType_;
};

}  // namespace

bool evaluate(const value::Value& rule, const value::Dictionary& items) {
    if (rule.kind() == value::Kind::boolean) return rule.booleanValue();
    const value::Dictionary* limits = rule.dictionary();
    const value::Array* elements = items.array("items");
    if (limits == nullptr || elements == nullptr || elements->empty()) return false;

    auto tally = Tally::forRule(*limits);
    if (!tally) return false;
    for (const value::Value& item : *elements) {
        if (!tally->take(item)) return false;
    }
    return tally->isWithinLimits();
}

}  // namespace activation
