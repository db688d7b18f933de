#include "vtd/VTDUserPrefs.h"

#include <algorithm>

#include "platform/logging/Log.h"
#include "platform/text/Format.h"

namespace {

bool areExclusions(const value::Value& stored) {
    const value::Array* rules = stored.array();
    return rules != nullptr && std::all_of(rules->begin(), rules->end(),
                                           [](const value::Value& rule) { return rule.dictionary() != nullptr; });
}

}  // namespace

std::optional<value::Array> VTDUserPrefs::exclusions() {
    const bool changed = synchronise(kUserPrefsDomain);
    const auto stored = copyValue(kExclusionsKey, kUserPrefsDomain);
    if (!stored) return {};
    if (areExclusions(*stored)) return *stored->array();
    if (changed) {
        logging::error(text::format("nothing is excluded, {}: {} is no array of dictionaries",
                                    prefs::pathOf(kUserPrefsDomain), kExclusionsKey));
    }
    return {};
}

std::shared_ptr<const Exclusions> VTDUserPrefs::preparedExclusions() {
    const auto current = exclusions();
    if (!current) return nullptr;
    auto prepared = prepared_.load();
    if (!prepared || !prepared->areOf(*current)) {
        prepared = std::make_shared<const Exclusions>(*current);
        prepared_.store(prepared);
    }
    return prepared;
}
