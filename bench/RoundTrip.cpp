#include "bench/Client.h"
#include "bench/Floor.h"
#include "bench/Processes.h"
#include "bench/Rows.h"
#include "bench/Statistics.h"
#include "bench/World.h"

namespace bench {

// A registration of nothing: the smallest request that does nothing and logs nothing, and the smallest of replies,
// through the client library, the socket, the service queue and back. Everything on one core: across two, waking the
// idle one hides the rest.
Row smallRequest() {
    constexpr std::size_t kRounds = 20'000;
    constexpr int kRepetitions = 5;
    constexpr std::size_t kMessageSize = 96;  // about that of the request with its frame

    const World world{10};
    pinToCore(0);
    const Daemon daemon{world.root()};
    VTDaemonClient client{kServiceName};
    const auto send = [&](VTDaemonClient::Reply reply) { client.addPlugIns({}, std::move(reply)); };
    roundTrips(kRounds / 10, send);

    std::vector<double> ours, floor;
    for (int i = 0; i < kRepetitions; ++i) {
        ours.push_back(median(roundTrips(kRounds, send)));
        floor.push_back(pingPongMicroseconds(kMessageSize, kRounds));
    }
    unpin();
    return {"small request and reply, one core, p50", median(ours), "us", "blocking ping-pong", median(floor), 1.5};
}

}  // namespace bench
