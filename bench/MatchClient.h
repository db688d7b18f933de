#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "Velto/VTDaemonClient.h"

namespace bench {

// Discovers by the extension point kExtensionPoint, again and again over one connection to the daemon that runs on this
// process's root when it is made, and visits every key and value of every form.
class MatchClient {
public:
    static constexpr int kRepetitions = 7;

    // Throws unless discoveries find as many as expected.
    explicit MatchClient(std::size_t expected);
    MatchClient(const MatchClient&) = delete;
    MatchClient& operator=(const MatchClient&) = delete;

    double microsecondsAMatch();  // in the median of one repetition's discoveries

private:
    void visit(const mox::Object& reply);

    const std::size_t expected_;
    VTDaemonClient client_;
    std::function<void(VTDaemonClient::Reply)> send_;
    std::size_t found_ = 0;
    volatile std::uint64_t sink_ = 0;
};

// The median of so many repetitions of a client of its own.
double microsecondsAMatch(std::size_t expected);

}  // namespace bench
