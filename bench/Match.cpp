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
    const Daemon daemon{world.root(), {"-c", "100000"}};
    MatchClient client;
    std::vector<double> figures;
};

}  // namespace

// By turns, so that both meet whatever else the machine does.
std::vector<Row> discoveries() {
    pinToCore(0);
    Discovering few{1'000};
    Discovering many{10'000};
    for (int i = 0; i < MatchClient::kRepetitions; ++i) {
        for (Discovering* one : {&few, &many}) one->figures.push_back(one->client.microsecondsAMatch());
    }
    unpin();
    const double small = median(few.figures);
    const double large = median(many.figures);
    return {{"match, 100 of 1,000, a match, one core", small, "us", "", 0, 8},
            {"match, 1,000 of 10,000, a match, one core", large, "us", "100 of 1,000", small, 1.2}};
}

}  // namespace bench
