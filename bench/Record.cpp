#include <stdexcept>

#include "bench/Floor.h"
#include "bench/Processes.h"
#include "bench/Rows.h"
#include "bench/Statistics.h"
#include "bench/World.h"
#include "platform/dravo/Dravo.h"
#include "platform/paths/Paths.h"
#include "vtd/VTDPlugIn.h"

namespace bench {

Row buildingOneRecord() {
    constexpr int kRepetitions = 9;
    const World world{1'000};
    setenv("HALVERN_ROOT", world.root().c_str(), 1);
    paths::setDirectories(paths::readDirectories());
    pinToCore(0);
    const auto workspace = dravo::DVApplicationWorkspace::open();
    if (!workspace) throw std::runtime_error(workspace.error().localizedDescription());
    const auto plugIns = (*workspace)->installedPlugins();
    if (!plugIns || plugIns->size() != world.plugIns())
        throw std::runtime_error("the registry does not hold the world");

    std::vector<double> ours, floor;
    for (int i = 0; i < kRepetitions; ++i) {
        auto start = Clock::now();
        for (const auto& plugIn : *plugIns) openReadClose(*plugIn->bundlePath() + "/Info.plist");
        floor.push_back(microsecondsSince(start) / static_cast<double>(plugIns->size()));

        start = Clock::now();
        for (const auto& plugIn : *plugIns) {
            if (VTDPlugIn::initWithDVData(plugIn) == nullptr) throw std::runtime_error("a record could not be built");
        }
        ours.push_back(microsecondsSince(start) / static_cast<double>(plugIns->size()));
    }
    unpin();
    return {"building one record", median(ours), "us", "open+read+close of its Info.plist", median(floor), 6};
}

}  // namespace bench
