#include "bench/Client.h"
#include "bench/Processes.h"
#include "bench/Rows.h"
#include "bench/World.h"

namespace bench {

std::vector<Row> residentMemory() {
    constexpr double kMebibyte = 1 << 20;
    const World world{1'000};
    secondsToFirstAnswer(world.root());  // from here on the plug-ins are known
    const Daemon daemon{world.root()};
    const double idle = static_cast<double>(daemon.process().residentBytes()) / kMebibyte;
    VTDaemonClient client{kServiceName};
    roundTrips(3, [&](VTDaemonClient::Reply reply) { client.matchPlugIns({}, 0, std::move(reply)); });
    const double used = static_cast<double>(daemon.process().residentBytes()) / kMebibyte;
    return {{"resident, idle, 1,000 plug-ins known", idle, "MiB", "", 0, 16},
            {"resident, after discovering all of them", used, "MiB", "", 0, 32}};
}

}  // namespace bench
