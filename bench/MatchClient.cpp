#include "bench/MatchClient.h"

#include <cstdint>
#include <stdexcept>
#include <utility>
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

MatchClient::MatchClient(std::size_t expected)
    : expected_{expected}, client_{kServiceName}, send_{[this](VTDaemonClient::Reply reply) {
          client_.matchPlugIns(value::Dictionary{{"KXExtensionPointName", kExtensionPoint}}, 0, std::move(reply));
      }} {
    roundTrips(3, send_, [this](const mox::Object& reply) { visit(reply); });
    if (found_ != expected) throw std::runtime_error("the discovery did not find what it should");
}

void MatchClient::visit(const mox::Object& reply) {
    const auto matches = reply.view().find(VTKey::matches);
    const auto forms = matches ? matches->message() : std::nullopt;
    if (!forms) return;
    found_ = forms->count();
    sink_ = sink_ + visitAll(*forms);
}

double MatchClient::microsecondsAMatch() {
    constexpr std::size_t kMatches = 25'000;
    const auto samples = roundTrips(kMatches / expected_, send_, [this](const mox::Object& reply) { visit(reply); });
    return median(samples) / static_cast<double>(expected_);
}

double microsecondsAMatch(std::size_t expected) {
    MatchClient client{expected};
    std::vector<double> figures;
    figures.reserve(MatchClient::kRepetitions);
    for (int i = 0; i < MatchClient::kRepetitions; ++i) figures.push_back(client.microsecondsAMatch());
    return median(figures);
}

}  // namespace bench
