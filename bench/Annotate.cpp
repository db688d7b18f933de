#include <stdexcept>
#include <string>

#include "bench/Client.h"
#include "bench/Processes.h"
#include "bench/Rows.h"
#include "bench/Statistics.h"
#include "bench/World.h"
#include "platform/file/File.h"

namespace bench {

namespace {

std::vector<value::Uuid> everyUuid(VTDaemonClient& client) {
    std::vector<value::Uuid> uuids;
    const auto send = [&](VTDaemonClient::Reply reply) { client.matchPlugIns({}, 0, std::move(reply)); };
    roundTrips(1, send, [&](const mox::Object& reply) {
        const auto matches = reply.view().find(VTKey::matches);
        const auto forms = matches ? matches->message() : std::nullopt;
        if (!forms) return;
        forms->forEachElement([&](mox::View form) {
            const auto text = form.find("uuid");
            if (text && text->string()) uuids.push_back(value::Uuid::parse(*text->string()).value_or(value::Uuid{}));
        });
    });
    return uuids;
}

}  // namespace

// The user's choice about one plug-in of a thousand that have one: each request saves the whole file, durably, before
// it is answered. Beside it the same bytes are saved in the same directory by the same routine, and nothing else.
Row annotating() {
    constexpr std::size_t kRounds = 500;
    const World world{1'000};
    const std::string path = world.root() + "/Annotations";
    const Daemon daemon{world.root(), {"-d", path}};
    VTDaemonClient client{kServiceName};
    const auto uuids = everyUuid(client);
    const auto send = [&](std::span<const value::Uuid> which, int election, VTDaemonClient::Reply reply) {
        client.setPluginAnnotations(which, {{"election", election}}, std::move(reply));
    };
    roundTrips(1, [&](VTDaemonClient::Reply reply) { send(uuids, 1, std::move(reply)); });
    const auto saved = file::readRegular(path, std::size_t{1} << 30);
    if (uuids.size() != world.plugIns() || !saved || saved->bytes.find("</plist>") == std::string::npos) {
        throw std::runtime_error("not every plug-in was annotated");
    }

    // Turn by turn: a disk that others use is not the same from one second to the next.
    std::vector<double> ours, floor;
    for (std::size_t round = 0; round < kRounds; ++round) {
        const int election = 1 + static_cast<int>(round % 2);
        ours.push_back(roundTrips(1, [&](VTDaemonClient::Reply reply) {
                           send({&uuids.front(), 1}, election, std::move(reply));
                       }).front());
        const auto start = Clock::now();
        if (file::writeAtomically(path + ".bare", saved->bytes)) throw std::runtime_error("a bare save failed");
        floor.push_back(microsecondsSince(start));
    }
    return {"annotate, 1,000 annotated, requests a second",
            1e6 / median(ours),
            "/s",
            "bare saves of the same file",
            1e6 / median(floor),
            0.7,
            true};
}

}  // namespace bench
