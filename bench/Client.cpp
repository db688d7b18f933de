#include "bench/Client.h"

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "bench/Statistics.h"
#include "platform/queue/Reactor.h"

namespace bench {

namespace {

class Rounds {
public:
    Rounds(std::size_t rounds, const std::function<void(VTDaemonClient::Reply)>& send,
           const std::function<void(const mox::Object&)>& visit)
        : rounds_{rounds}, send_{send}, visit_{visit} {
        samples_.reserve(rounds);
    }

    std::vector<double> run() {
        next();
        queue::runUntil([this] { return done_.load(); });
        if (failed_) throw std::runtime_error("the connection to the daemon failed");
        return std::move(samples_);
    }

private:
    void next() {
        start_ = Clock::now();
        send_([this](const mox::Object& reply) { take(reply); });
    }

    void take(const mox::Object& reply) {
        if (visit_) visit_(reply);
        samples_.push_back(microsecondsSince(start_));
        failed_ = reply.isError();
        if (failed_ || samples_.size() == rounds_) {
            done_ = true;
            queue::wake();
        } else {
            next();
        }
    }

    const std::size_t rounds_;
    const std::function<void(VTDaemonClient::Reply)>& send_;
    const std::function<void(const mox::Object&)>& visit_;
    std::vector<double> samples_;
    Clock::time_point start_;
    bool failed_ = false;
    std::atomic<bool> done_ = false;
};

}  // namespace

std::vector<double> roundTrips(std::size_t rounds, const std::function<void(VTDaemonClient::Reply)>& send,
                               const std::function<void(const mox::Object&)>& visit) {
    return Rounds{rounds, send, visit}.run();
}

bool waitForDaemon() {
    const auto start = Clock::now();
    while (microsecondsSince(start) < 10e6) {
        VTDaemonClient client{kServiceName};
        try {
            roundTrips(1, [&](VTDaemonClient::Reply reply) { client.send(client.request("none"), std::move(reply)); });
            return true;
        } catch (const std::runtime_error&) {
            std::this_thread::sleep_for(std::chrono::milliseconds{1});
        }
    }
    return false;
}

}  // namespace bench
