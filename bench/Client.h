#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "Velto/VTDaemonClient.h"

namespace bench {

inline constexpr char kServiceName[] = "bench.vtd";

// Sends what `send` sends, once at a time, `rounds` times: each reply closure sends the next. Answers the microseconds
// of each round. Throws when a reply is an error of the connection.
std::vector<double> roundTrips(std::size_t rounds, const std::function<void(VTDaemonClient::Reply)>& send,
                               const std::function<void(const mox::Object&)>& visit = {});

// Waits until the daemon answers; false when it has not within ten seconds.
bool waitForDaemon();

}  // namespace bench
