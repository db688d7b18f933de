#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <stdexcept>

#include "bench/Client.h"
#include "bench/Floor.h"
#include "bench/Processes.h"
#include "bench/RawConnection.h"
#include "bench/Rows.h"
#include "bench/Statistics.h"
#include "bench/World.h"

namespace bench {

namespace {

mox::Dictionary smallRequestMessage() {
    mox::Dictionary request;
    request.set(VTKey::request, VTRequest::match);
    request.set(VTKey::version, static_cast<std::uint64_t>(VTProtocolVersion));
    request.set(VTKey::rules, value::Dictionary{{"KXExtensionIdentifier", "bench.nothing"}});
    request.set(VTKey::flags, 0U);
    return request;
}

// Requests a second that the service at the path answers to `clients` connections, each with one request under way.
double requestsASecond(const std::string& socketPath, std::size_t clients, bool shakeHands, double seconds) {
    const std::vector<std::byte> request = requestFrame(smallRequestMessage());
    std::vector<std::unique_ptr<RawConnection>> connections;
    const file::UniqueFd epoll{epoll_create1(EPOLL_CLOEXEC)};
    for (std::size_t i = 0; i < clients; ++i) {
        connections.push_back(std::make_unique<RawConnection>(socketPath));
        if (shakeHands) connections.back()->shakeHands();
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.ptr = connections.back().get();
        epoll_ctl(epoll.get(), EPOLL_CTL_ADD, connections.back()->fd(), &event);
    }
    for (const auto& connection : connections) connection->sendAll(request.data(), request.size());

    std::size_t answered = 0;
    const auto start = Clock::now();
    double elapsed = 0;
    std::array<epoll_event, 64> events;
    while ((elapsed = microsecondsSince(start) / 1e6) < seconds) {
        const int count = epoll_wait(epoll.get(), events.data(), events.size(), 1000);
        if (count <= 0) {
            throw std::runtime_error("the service at " + socketPath + " stopped answering after " +
                                     std::to_string(answered));
        }
        for (int i = 0; i < count; ++i) {
            auto& connection = *static_cast<RawConnection*>(events[static_cast<std::size_t>(i)].data.ptr);
            if (!connection.readFrame()) continue;
            ++answered;
            connection.sendAll(request.data(), request.size());
        }
    }
    return static_cast<double>(answered) / elapsed;
}

std::string socketPathIn(const World& world) {
    return world.root() + "/run/" + kServiceName;
}

// A thousand idle clients, one that never reads its replies and one that sends half a frame, until the process ends.
void behaveBadly(const std::string& socketPath, int ready) {
    constexpr std::size_t kIdle = 1'000;
    std::vector<std::unique_ptr<RawConnection>> connections;
    for (std::size_t i = 0; i < kIdle + 2; ++i) {
        connections.push_back(std::make_unique<RawConnection>(socketPath));
        connections.back()->shakeHands();
    }
    const std::vector<std::byte> request = requestFrame(smallRequestMessage());
    connections[0]->sendAll(request.data(), request.size() / 2);
    // Until everything is full in both directions. Frames are cut where the socket is full, which harms nobody else.
    pollfd stalled{connections[1]->fd(), POLLOUT, 0};
    while (poll(&stalled, 1, 100) > 0 && (stalled.revents & (POLLERR | POLLHUP)) == 0) {
        if (send(stalled.fd, request.data(), request.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) usleep(1000);
    }
    if (write(ready, "", 1) != 1) return;
    pause();
}

}  // namespace

Row manyClients() {
    constexpr std::size_t kClients = 64;
    constexpr double kSeconds = 1;
    constexpr int kRepetitions = 5;
    const World world{10};
    const std::string echoPath = world.root() + "/echo";
    const file::UniqueFd listener = listenAt(echoPath);
    const Child echo{[&] { serveEcho(listener); }};
    const Daemon daemon{world.root()};

    std::vector<double> ours, floor;
    for (int i = 0; i < kRepetitions; ++i) {
        ours.push_back(requestsASecond(socketPathIn(world), kClients, true, kSeconds));
        floor.push_back(requestsASecond(echoPath, kClients, false, kSeconds));
    }
    return {"64 clients, requests a second", median(ours), "/s", "epoll echo server", median(floor), 0.6, true};
}

Row besideBadClients() {
    constexpr std::size_t kRounds = 20'000;
    constexpr int kRepetitions = 5;
    const World world{10};
    pinToCore(0);
    const Daemon daemon{world.root()};
    VTDaemonClient client{kServiceName};
    const value::Dictionary rules{{"KXExtensionIdentifier", "bench.nothing"}};
    const auto send = [&](VTDaemonClient::Reply reply) { client.matchPlugIns(rules, 0, std::move(reply)); };
    roundTrips(kRounds / 10, send);

    std::vector<double> alone, beside;
    for (int i = 0; i < kRepetitions; ++i) {
        alone.push_back(percentile(roundTrips(kRounds, send), 0.99));
        int ready[2];
        if (pipe(ready) != 0) throw std::runtime_error("pipe");
        const Child bad{[&] { behaveBadly(socketPathIn(world), ready[1]); }};
        close(ready[1]);
        char byte;
        if (read(ready[0], &byte, 1) != 1) throw std::runtime_error("the bad clients could not start");
        close(ready[0]);
        beside.push_back(percentile(roundTrips(kRounds, send), 0.99));
    }
    unpin();
    return {"p99 beside a stalled, a half-sent and 1,000 idle clients",
            median(beside),
            "us",
            "without them",
            median(alone),
            1.5};
}

}  // namespace bench
