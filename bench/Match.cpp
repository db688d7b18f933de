#include "bench/MatchClient.h"
#include "bench/Processes.h"
#include "bench/Rows.h"
#include "bench/World.h"

namespace bench {

namespace {

// Of a discovery that selects a tenth of the world.
double microsecondsAMatchOf(std::size_t plugIns) {
    const World world{plugIns};
    pinToCore(0);
    const Daemon daemon{world.root(), {"-c", "100000"}};
    const double figure = microsecondsAMatch(plugIns / kPlugInsPerApplication);
    unpin();
    return figure;
}

}  // namespace

std::vector<Row> discoveries() {
    const double small = microsecondsAMatchOf(1'000);
    const double large = microsecondsAMatchOf(10'000);
    return {{"match, 100 of 1,000, a match, one core", small, "us", "", 0, 8},
            {"match, 1,000 of 10,000, a match, one core", large, "us", "100 of 1,000", small, 1.2}};
}

}  // namespace bench
