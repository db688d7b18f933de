#include "bench/MatchClient.h"

#include <cstdint>
#include <stdexcept>
#include <vector>

#include "bench/Client.h"
#include "bench/Statistics.h"
#include "bench/World.h"

namespace bench {

namespace {

// Visits every key and every value, and lets none of it be left out by the compiler.
std::uint64_t visitAll(mox::View view) {
    switch (view.kind()) {
        case mox::Kind::string: return view.string()->size();
        case mox::Kind::boolean: return *view.boolean() ? 1 : 0;
        case mox::Kind::signedInteger: return static_cast<std::uint64_t>(*view.signedInteger());
        case mox::Kind::unsignedInteger: return *view.unsignedInteger();
        case mox::Kind::data: return view.data()->size();
        case mox::Kind::array: {
            std::uint64_t sum = 0;
            view.forEachElement([&](mox::View element) { sum += visitAll(element); });
            return sum;
        }
        case mox::Kind::dictionary: {
            std::uint64_t sum = 0;
            view.forEachEntry([&](std::string_view key, mox::View entry) { sum += key.size() + visitAll(entry); });
            return sum;
        }
        default: return static_cast<std::uint64_t>(view.kind());
    }
}

}  // namespace

double microsecondsAMatch(std::size_t expected) {
    constexpr int kRepetitions = 7;
    const std::size_t rounds = 100'000 / expected;

    VTDaemonClient client{kServiceName};
    const value::Dictionary rules{{"KXExtensionPointName", kExtensionPoint}};
    const auto send = [&](VTDaemonClient::Reply reply) { client.matchPlugIns(rules, 0, std::move(reply)); };
    std::size_t found = 0;
    volatile std::uint64_t sink = 0;
    const auto visit = [&](const mox::Object& reply) {
        const auto matches = reply.view().find(VTKey::matches);
        const auto forms = matches ? matches->message() : std::nullopt;
        if (!forms) return;
        found = forms->count();
        sink = sink + visitAll(*forms);
    };
    roundTrips(3, send, visit);
    if (found != expected) throw std::runtime_error("the discovery did not find what it should");

    std::vector<double> medians;
    for (int i = 0; i < kRepetitions; ++i) medians.push_back(median(roundTrips(rounds / 4, send, visit)));
    return median(medians) / static_cast<double>(expected);
}

}  // namespace bench
