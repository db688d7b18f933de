#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/activation/ActivationRule.h"
#include "platform/mox/View.h"
#include "platform/value/Value.h"
#include "vtd/rules/Pattern.h"

namespace rules {

// What rules call the values of a plug-in that do not stand in its Info.plist under that very name, and the names by
// which the registry's indices can narrow a discovery.
inline constexpr char kIdentifierAttribute[] = "KXExtensionIdentifier";
inline constexpr char kPointAttribute[] = "KXExtensionPointName";
inline constexpr char kElectionAttribute[] = "KXUserElection";

// What it costs, in units of effort, to find the value of a plug-in that a rule is about.
inline constexpr std::uint64_t kUnitsARule = 6;

// Which value of a plug-in a rule is about.
enum class Attribute : std::uint8_t { entitlement, identifier, uuid, election, containingApplication, other };

// What the value must be.
enum class Demand : std::uint8_t {
    truth,     // there, and not equal to false
    falsity,   // absent, or equal to false
    items,     // an activation rule that accepts these items
    patterns,  // a text that some pattern accepts, or an array with such a text
    nothing,   // no value will do
};

// A dictionary of rules, read once for the many plug-ins that it is held against: attribute names, and the patterns
// under them with their operators. Literal patterns of a long list are found by looking a value up.
//
// Reading is linear (but for sorting) and charged; what is kept is less than ten bytes for each byte that was read, and
// refers to the texts there. One made of a View refers to its message, which must outlive it; one made of a Dictionary
// keeps that. Immutable: any thread.
class Rules {
public:
    struct Rule {
        std::string_view name;  // of the attribute, as it stands in the dictionary
        Attribute attribute;
        Demand demand;
        bool hasOtherElements = false;  // the array has elements that are no texts, and accept nothing

        // Of the lists below: from where on, and how many.
        struct Range {
            std::uint32_t first = 0;
            std::uint32_t count = 0;
        };
        Range patterns;  // in their order; `items`: the place of the items
        Range tried;     // places of those that are tried one after another
        Range unknown;   // places of those with unknown operators
        Range literals;  // those that are looked up
    };

    Rules() = default;  // without rules: every plug-in matches
    explicit Rules(mox::View dictionary);
    explicit Rules(value::Dictionary dictionary);

    Rules(Rules&&) = default;
    Rules& operator=(Rules&&) = default;
    Rules(const Rules&) = delete;
    Rules& operator=(const Rules&) = delete;

    std::span<const Rule> rules() const { return rules_; }  // in ascending order of their names
    const Rule* find(std::string_view name) const;          // null: none

    // What holding them against any plug-in costs, in units of effort, the plug-in's own values aside.
    std::uint64_t price() const { return price_; }

    // The first pattern of the rule that accepts the text, by its place in the rule; the number of patterns when none
    // does. Complains of nothing.
    std::size_t firstAccepting(const Rule& rule, std::string_view text) const;

    std::span<const Pattern> patterns(const Rule& rule) const { return partOf(patterns_, rule.patterns); }
    std::span<const std::uint32_t> unknown(const Rule& rule) const { return partOf(places_, rule.unknown); }
    const activation::Items& items(const Rule& rule) const { return *items_[rule.patterns.first]; }

    // Of a rule that consists of nothing but plain texts (or of no pattern at all): each of them once, as the registry
    // can be asked. Nothing for any other, and when there is no rule of the name.
    std::optional<std::vector<std::string>> plainTexts(std::string_view name) const;

    // The same with texts that are equal as numbers but written differently, for who compares them byte by byte.
    std::optional<std::vector<std::string>> writtenTexts(std::string_view name) const;

private:
    struct Literal {
        std::uint64_t hash;
        std::uint32_t place;  // in its rule
    };

    template <typename T>
    static std::span<const T> partOf(const std::vector<T>& list, Rule::Range range) {
        return std::span<const T>{list}.subspan(range.first, range.count);
    }

    template <typename Source>
    void add(std::string_view name, const Source& pattern);
    template <typename Texts>
    void addPatterns(Rule& rule, const Texts& forEachText);
    void indexLiterals(Rule& rule);
    bool isAllPlain(const Rule& rule) const;
    void finish();

    value::Dictionary kept_;
    std::vector<Rule> rules_;
    std::vector<Pattern> patterns_;
    std::vector<std::uint32_t> places_;
    std::vector<Literal> literals_;
    std::vector<std::unique_ptr<const activation::Items>> items_;
    std::uint64_t price_ = 0;
};

}  // namespace rules
