#include <stdexcept>
#include <string>

#include "bench/Host.h"
#include "bench/Processes.h"
#include "bench/Rows.h"
#include "bench/World.h"
#include "platform/prefs/Preferences.h"

namespace bench {

namespace {

using value::Array;
using value::Dictionary;

constexpr std::size_t kPlugIns = 1'000;

// Of which none matches, so that each is tried on each candidate: what people exclude, mostly plug-ins by name, and a
// few by what they are.
Array exclusions(std::size_t count) {
    Array::Storage rules;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string number = std::to_string(i);
        rules.emplace_back(i % 10 != 0 ? Dictionary{{"KXExtensionIdentifier", "bench.app" + number + ".unwanted"}}
                                       : Dictionary{{"Category", "games"}, {"KXExtensionVersion", "<" + number}});
    }
    return Array{std::move(rules)};
}

double measure(World::Demands demands, const Dictionary& entitlements, std::size_t exclusionCount) {
    const World world{kPlugIns, demands};
    if (demands == World::Demands::everything) {
        writeList(world.root() + "/config/restrictions.plist", Dictionary{{"maximum-apps-rating", kRating}});
    }
    pinToCore(0);
    const Daemon daemon{world.root(), {"-c", "100000"}};
    if (exclusionCount > 0) {
        const auto error = prefs::update("halvern.velto.userprefs", "exclusions", [&](const auto&) {
            return std::optional<value::Value>{exclusions(exclusionCount)};
        });
        if (error) throw std::runtime_error(error->localizedDescription());
    }
    const double figure = microsecondsAMatchAsHost(world.root(), entitlements, kPlugIns / kPlugInsPerApplication);
    unpin();
    return figure;
}

}  // namespace

std::vector<Row> policies() {
    const Dictionary all{
        {"halvern.developer.velto.allowedplugins", Dictionary{{"KXExtensionPointName", kExtensionPoint}}},
        {kHostEntitlement, true}};
    const double plain = measure(World::Demands::nothing, {}, 0);
    const double gates = measure(World::Demands::everything, all, 1);
    const double excluding = measure(World::Demands::nothing, {}, 100);
    return {{"match, 100 of 1,000, all gates on, a match", gates, "us", "without", plain, 1.3},
            {"match, 100 of 1,000, 100 exclusions, a match", excluding, "us", "without", plain, 1.3}};
}

}  // namespace bench
