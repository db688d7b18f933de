#include "vtctl/Exclusions.h"

#include <algorithm>
#include <iostream>
#include <optional>
#include <utility>

#include "platform/mox/Object.h"
#include "platform/prefs/Preferences.h"
#include "vtctl/Json.h"
#include "vtctl/Rules.h"
#include "vtctl/Terminal.h"

namespace {

constexpr char kDomain[] = "halvern.velto.userprefs";
constexpr char kKey[] = "exclusions";

using Stored = std::optional<value::Value>;

value::Error error(const std::string& what) {
    return {"vtctl", 0, what};
}

value::Result<value::Array> listIn(const Stored& stored) {
    if (!stored) return value::Array{};
    if (const value::Array* list = stored->array()) return *list;
    return error(prefs::pathOf(kDomain) + " holds \"" + kKey +
                 "\", but not as a list; take the key away or make it a list of dictionaries");
}

std::string described(const value::Value& exclusion) {
    const value::Dictionary* rules = exclusion.dictionary();
    if (rules == nullptr)
        return json::text(mox::Object{exclusion}.view()) +
               " (no dictionary of rules: while it is there, nothing is excluded)";
    return rules->empty() ? "(no rules: every plug-in)" : rules::inWords(*rules);
}

ExitStatus failed(const value::Error& failure) {
    terminal::complain(failure.localizedDescription());
    return ExitStatus::usage;
}

}  // namespace

ExitStatus runExclude(const std::vector<std::string>& words) {
    const auto rules = rules::fromWords(words);
    if (!rules) return failed(rules.error());
    std::size_t number = 0;
    const auto change = [&](const Stored& stored) -> value::Result<Stored> {
        const auto list = listIn(stored);
        if (!list) return list.error();
        const auto stray = std::find_if(list->begin(), list->end(),
                                        [](const value::Value& element) { return element.dictionary() == nullptr; });
        if (stray != list->end()) {
            const auto place = std::to_string(stray - list->begin() + 1);
            return error("exclusion " + place +
                         " is no dictionary of rules, so that nothing is excluded at all; take " +
                         "it away with `vtctl include " + place + "`, then try again");
        }
        value::Array::Storage all(list->begin(), list->end());
        const auto same = std::find(all.begin(), all.end(), value::Value{*rules});
        number = static_cast<std::size_t>(same - all.begin()) + 1;
        if (same == all.end()) all.emplace_back(*rules);
        return Stored{value::Array{std::move(all)}};
    };
    if (const auto failure = prefs::update(kDomain, kKey, change)) return failed(*failure);
    std::cout << number << "  " << rules::inWords(*rules) << "\n";
    return ExitStatus::success;
}

ExitStatus runExclusions(bool asJson) {
    const auto stored = prefs::read(kDomain, kKey);
    const auto list = stored ? listIn(*stored) : value::Result<value::Array>{stored.error()};
    if (!list) return failed(list.error());
    if (asJson) {
        json::printIndented(mox::Object{value::Value{*list}}.view(), std::cout);
        std::cout << "\n";
        return ExitStatus::success;
    }
    if (list->empty()) std::cerr << "no exclusions\n";
    std::size_t number = 0;
    for (const value::Value& exclusion : *list) std::cout << ++number << "  " << described(exclusion) << "\n";
    return ExitStatus::success;
}

ExitStatus runInclude(std::int64_t number) {
    std::string removed;
    const auto change = [&](const Stored& stored) -> value::Result<Stored> {
        const auto list = listIn(stored);
        if (!list) return list.error();
        if (number < 1 || static_cast<std::size_t>(number) > list->size()) {
            return error("there is no exclusion " + std::to_string(number) + "; `vtctl exclusions` lists the " +
                         std::to_string(list->size()) + " there are");
        }
        value::Array::Storage all(list->begin(), list->end());
        const auto at = all.begin() + (number - 1);
        removed = described(*at);
        all.erase(at);
        if (all.empty()) return Stored{};
        return Stored{value::Array{std::move(all)}};
    };
    if (const auto failure = prefs::update(kDomain, kKey, change)) return failed(*failure);
    std::cout << "no longer excluded: " << removed << "\n";
    return ExitStatus::success;
}
