#include "vtd/Discovery.h"

#include <algorithm>
#include <utility>

#include "platform/logging/Log.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/text/Format.h"
#include "vtd/Exclusions.h"
#include "vtd/VTDPlugIn.h"

namespace {

// For the tokens of what candidates share with their hosts, which the client's rules do not ask for: so much for all of
// them together, in equal parts, and as much for each as honest ones need.
constexpr std::uint64_t kTokensInAll = effort::kLimit / 2;
constexpr std::uint64_t kTokensAtLeast = 4 * sandbox::kUnitsAToken;

}  // namespace

Discovery::Discovery(Query query, Annotate annotate, effort::Account& account)
    : query_{std::move(query)},
      annotate_{std::move(annotate)},
      priceOfRules_{query_.wanted.price() + query_.priceOfPolicy},
      account_{account},
      matches_{query_.flags} {}

bool Discovery::isAffordable(std::size_t candidates, Rounds rounds) {
    const std::uint64_t times = static_cast<std::uint64_t>(rounds);
    const std::uint64_t left = account_.left();  // without the shares, which are the candidates' own
    account_.grantShares(candidates * times);
    // What the user excludes is no choice of the client's, and is on the house.
    if (query_.exclusions) account_.grantShares(candidates * times * query_.exclusions->price() / effort::kShare);
    if (candidates == 0) return true;
    shareForTokens_ = std::max(kTokensInAll / candidates, kTokensAtLeast);
    return priceOfRules_ * times <= left / candidates;
}

std::uint64_t Discovery::priceOfOne() const {
    return effort::kShare + priceOfRules_ + (query_.exclusions ? query_.exclusions->price() : 0);
}

std::optional<Discovery::Refusal> Discovery::visit(const VTDPlugIn& candidate) {
    effort::Account own{account_, priceOfOne()};
    const effort::Charging charging{own};
    gates::Visit visit{candidate, query_, matches_, complaints_, shareForTokens_, leftOut_ > 0};
    for (const gates::Gate& gate : gates::kInOrder) {
        if (!gate.isAsked(query_)) continue;
        auto reason = gate.examine(visit);
        if (gate.name == gates::Name::exported) {
            if (visit.isFull) ++leftOut_;
            if (visit.exportError) {
                logging::notice(
                    text::format("error matching {}: {}", candidate.path(), visit.exportError->localizedDescription()));
            }
        }
        // What was decided with nothing left to spend was not decided.
        if (own.isSpent() || visit.sharesTooMuch) return Refusal{nullptr, {"needs more effort than one may"}};
        if (reason) return Refusal{&gate, *std::move(reason)};
    }
    annotate_(candidate, *visit.form);
    // What it may have for that comes from no account.
    effort::Account tokens{shareForTokens_};
    {
        const effort::Charging toTokens{tokens};
        candidate.augmentForm(*visit.form);
    }
    matches_.append(*std::move(visit.form), visit.admission, std::move(visit.replacePlugIn));
    return {};
}

std::vector<VTForm> Discovery::finish() && {
    complaints_.write();
    return std::move(matches_).finish();
}
