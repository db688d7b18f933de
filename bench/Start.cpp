#include <filesystem>

#include "bench/Processes.h"
#include "bench/Rows.h"
#include "bench/Statistics.h"
#include "bench/World.h"

namespace bench {

std::vector<Row> startsAndScans() {
    constexpr int kRepetitions = 5;
    const World world{10'000};
    std::vector<double> scans, starts;
    for (int i = 0; i < kRepetitions; ++i) {
        std::filesystem::remove_all(world.root() + "/state");
        scans.push_back(secondsToFirstAnswer(world.root()));
        starts.push_back(secondsToFirstAnswer(world.root()));
    }
    return {{"start, 10,000 known bundles, until the first answer", median(starts), "s", "", 0, 0.3},
            {"first scan of 10,000 bundles, until the first answer", median(scans), "s", "", 0, 2}};
}

}  // namespace bench
