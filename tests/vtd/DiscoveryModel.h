#pragma once

#include <algorithm>
#include <iterator>
#include <map>
#include <random>

#include "Velto/VTForm.h"
#include "Velto/VTProtocol.h"
#include "Velto/VTVersionComparison.h"
#include "platform/activation/ActivationRule.h"
#include "platform/text/NumericCompare.h"
#include "platform/types/TypeHierarchy.h"
#include "tests/support/Words.h"

// What discovery is to mean, as slow and as plain as it can be said, and worlds to hold it against.
namespace model {

// The rule language as it is written down: every pattern is tried in its turn, on every text.
class RuleModel {
public:
    RuleModel(std::string identifier, Dictionary attributes)
        : identifier_{std::move(identifier)}, attributes_{std::move(attributes)} {}

    bool matches(const Dictionary& rules) {
        return std::all_of(rules.begin(), rules.end(), [&](auto& rule) {
            const Value identifier{identifier_};
            return matches(rule.key == "KXExtensionIdentifier" ? &identifier : attributes_.find(rule.key), rule.value);
        });
    }

    std::map<std::string, int> complaints;

private:
    bool matches(const Value* value, const Value& pattern) {
        const bool isFalse = value != nullptr && *value == Value{false};
        if (pattern == Value{true}) return value != nullptr && !isFalse;
        if (pattern == Value{false}) return value == nullptr || isFalse;
        if (value == nullptr) return false;
        if (pattern.dictionary() != nullptr) return activation::evaluate(*value, *pattern.dictionary());
        if (value->string() != nullptr) return matchesAny(*value->string(), pattern);
        return value->array() != nullptr && std::any_of(value->array()->begin(), value->array()->end(), [&](auto& e) {
                   return e.string() != nullptr && matchesAny(*e.string(), pattern);
               });
    }

    bool matchesAny(const std::string& text, const Value& pattern) {
        if (pattern.string() != nullptr) return matchesOne(text, *pattern.string());
        return pattern.array() != nullptr &&
               std::any_of(pattern.array()->begin(), pattern.array()->end(),
                           [&](auto& p) { return p.string() != nullptr && matchesOne(text, *p.string()); });
    }

    bool matchesOne(const std::string& text, const std::string& pattern) {
        const auto behind = [&](const char* prefix) { return pattern.substr(std::string_view{prefix}.size()); };
        const auto begins = [&](const char* prefix) { return pattern.starts_with(prefix); };
        const auto against = [&](const char* prefix) { return text::compareNumerically(text, behind(prefix)); };
        if (begins("?ZT-CONFORMS:")) return types::conforms(text, behind("?ZT-CONFORMS:"));
        if (begins("?ZT-IS:")) return types::conforms(behind("?ZT-IS:"), text);
        if (begins("?")) return ++complaints[pattern] < 0;
        if (begins("<>")) return against("<>") != 0;
        if (begins("<=")) return against("<=") <= 0;
        if (begins(">=")) return against(">=") >= 0;
        if (begins("=")) return against("=") == 0;
        if (begins("<")) return against("<") < 0;
        if (begins(">")) return against(">") > 0;
        return against("") == 0;
    }

    const std::string identifier_;
    const Dictionary attributes_;
};

// A plug-in that came through the gates.
struct Copy {
    std::string uuid, identifier, version;
    bool onSystem;
    int modified;
    Texts replaces;
};

// The matches in their order: for each the UUID, that of its overrider and the identifier of what it overrides.
inline Texts asTexts(const std::vector<VTForm>& forms) {
    Texts matches;
    for (const VTForm& form : forms) {
        const Dictionary entries = form.dictionary();
        const auto text = [&](const char* key) { return entries.contains(key) ? *entries.string(key) : ""; };
        matches.push_back(std::string{form.uuid()} + "<" + text(VTFormKey::overrider) + ">" +
                          text(VTFormKey::overriding));
    }
    return matches;
}

// The rules of resolution as slow and as plain as they can be said: one list, walked from the front.
inline Texts resolvePlainly(const std::vector<Copy>& visited, std::uint64_t flags) {
    std::vector<Copy> list, admitted;
    for (const Copy& p : visited) {
        bool dropped = false;
        for (std::size_t i = 0; i < list.size(); ++i) {
            const Copy x = list[i];
            if (x.identifier != p.identifier) continue;
            const auto c = compareVersionString(p.version, x.version);
            if ((flags & 1) != 0 && (std::is_neq(c) || (flags & 4) != 0)) continue;
            const bool winsTie = (p.onSystem && !x.onSystem) || p.modified > x.modified;
            const bool wins = std::is_gt(c) || (std::is_eq(c) && winsTie);
            if (wins) list.erase(list.begin() + static_cast<std::ptrdiff_t>(i));
            dropped = !wins;
            break;
        }
        if (dropped) continue;
        list.push_back(p);
        admitted.push_back(p);
    }
    // The last claim to replace something counts, even one of a form that went; of several replaced the last is named.
    const auto overrider = [&](const Copy& x) {
        std::string last;
        for (const Copy& p : admitted) {
            if (std::count(p.replaces.begin(), p.replaces.end(), x.identifier) > 0) last = p.uuid;
        }
        return last;
    };
    Texts matches;
    for (const Copy& p : list) {
        std::string overridden;
        for (const Copy& x : list) {
            if (overrider(x) == p.uuid) overridden = x.identifier;
        }
        matches.push_back(p.uuid + "<" + overrider(p) + ">" + overridden);
    }
    return matches;
}

// Rules and what they may meet, at random: few names and texts, so that they do meet.
class Chance {
public:
    explicit Chance(unsigned seed) : random_{seed} {}

    std::size_t below(std::size_t count) { return random_() % count; }
    bool once(std::size_t in) { return below(in) == 0; }
    template <typename Pool>
    auto pick(const Pool& pool) {
        return pool[below(std::size(pool))];
    }

    std::string text() {
        constexpr const char* kTexts[] = {"",  "a",  "a.1", "a.01", "a.001.0", "a.2", "b",
                                          "=", "==", "10",  "9",    "?",       "x"};
        return pick(kTexts);
    }
    std::string pattern() {
        constexpr const char* kOperators[] = {"", "", "=", "<>", "<=", ">=", "<", ">", "?ZT-CONFORMS:", "?ZT-IS:", "?"};
        return pick(kOperators) + text();
    }
    Value number() {
        const Value numbers[] = {true, false, 0, 1.0, 5};
        return pick(numbers);
    }
    template <typename Element>
    Value list(Element element) {
        Array::Storage elements;
        const std::size_t count = below(2) == 0 ? below(4) : below(40);
        for (std::size_t i = 0; i < count; ++i) elements.push_back(below(12) != 0 ? Value{element()} : Value{7});
        return Array{std::move(elements)};
    }

    Dictionary attributes() {
        Dictionary::Builder attributes;
        for (const char* name : {"one", "two", "three"}) {
            switch (below(5)) {
                case 0: attributes.set(name, text()); break;
                case 1: attributes.set(name, list([this] { return text(); })); break;
                case 2: attributes.set(name, number()); break;
                case 3: attributes.set(name, Dictionary{{"b", static_cast<int>(below(3))}}); break;
                default: break;
            }
        }
        return std::move(attributes).build();
    }

    // Of the names that there are, each is in the rules four times in so many.
    Dictionary rules(std::size_t in) {
        Dictionary::Builder rules;
        for (const char* name : {"one", "two", "three", "KXExtensionIdentifier", "absent"}) {
            if (below(in) >= 4) continue;
            const Value items =
                Array{Dictionary{{"types", list([this] { return text(); })}}, Dictionary{{"types", Array{"a.1"}}}};
            switch (below(4)) {
                case 0: rules.set(name, pattern()); break;
                case 1: rules.set(name, list([this] { return pattern(); })); break;
                case 2: rules.set(name, number()); break;
                default: rules.set(name, Dictionary{{"items", items}}); break;
            }
        }
        return std::move(rules).build();
    }

private:
    std::mt19937 random_;
};

}  // namespace model
