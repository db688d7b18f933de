#include <array>
#include <memory>
#include <string>

#include "bench/MatchClient.h"
#include "bench/Processes.h"
#include "bench/Rows.h"
#include "bench/Statistics.h"
#include "bench/World.h"

namespace bench {

namespace {

// A daemon that knows so many plug-ins, and a client that selects a tenth of them.
struct Discovering {
    explicit Discovering(std::size_t plugIns) : world{plugIns}, client{plugIns / kPlugInsPerApplication} {}

    const World world;
    const Daemon daemon{world.root()};
    MatchClient client;
    std::vector<double> figures;
};

}  // namespace

// By turns, so that all meet whatever else the machine does. The daemons run as they are installed: most of their
// records are not in the cache when they are asked for.
std::vector<Row> discoveries() {
    pinToCore(0);
    const std::array<std::size_t, 3> sizes{700, 7'000, 70'000};
    std::vector<std::unique_ptr<Discovering>> worlds;
    worlds.reserve(sizes.size());
    for (const std::size_t size : sizes) worlds.push_back(std::make_unique<Discovering>(size));
    for (int i = 0; i < MatchClient::kRepetitions; ++i) {
        for (const auto& one : worlds) one->figures.push_back(one->client.microsecondsAMatch());
    }
    unpin();
    std::vector<Row> rows{{"match, 70 of 700, a match, one core", median(worlds[0]->figures), "us", "", 0, 2}};
    for (std::size_t i = 1; i < worlds.size(); ++i) {
        rows.push_back({"match, " + std::to_string(sizes[i] / kPlugInsPerApplication) + " of " +
                            std::to_string(sizes[i]) + ", a match, one core",
                        median(worlds[i]->figures), "us", "70 of 700", rows.front().figure, 1.3});
    }
    return rows;
}

}  // namespace bench
