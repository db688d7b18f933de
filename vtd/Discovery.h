#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <vector>

#include "Velto/VTForm.h"
#include "platform/effort/Effort.h"
#include "vtd/MatchList.h"
#include "vtd/gates/Gates.h"
#include "vtd/rules/Complaints.h"

// One discovery: passes each candidate through the gates (gates/Gates.h) and collects the forms of those that pass.
//
// Each candidate pays for itself: it has a share of its own, and what the rules cost anybody. One that needs more (for
// its lists are long, and meet many patterns) is held back, and takes nothing from the next.
//
// Belongs to one request, which keeps everything it refers to alive, and to the thread that made it.
class Discovery {
public:
    using Query = gates::Query;

    // Why a candidate is not among the matches: the first gate that refused it, or, without one, what it costs.
    struct Refusal {
        const gates::Gate* gate;  // null: "effort"
        gates::Reason reason;

        bool isBy(gates::Name name) const { return gate != nullptr && gate->name == name; }
    };

    // How often the candidates are held against the rules: where the discovery is explained, some of them again for
    // what later gates would say, and for the grounds.
    enum class Rounds : std::uint8_t { one = 1, explained = 4 };

    // Sets a form's "annotations" to those of the plug-in.
    using Annotate = std::function<void(const VTDPlugIn& plugIn, VTForm& form)>;

    // The account is the request's, and outlives the discovery.
    Discovery(Query query, Annotate annotate, effort::Account& account);
    Discovery(const Discovery&) = delete;
    Discovery& operator=(const Discovery&) = delete;

    // Grants the request the shares of so many candidates, and judges whether its rules may be held against all of
    // them.
    bool isAffordable(std::size_t candidates, Rounds rounds = Rounds::one);

    // Passes the candidate through the gates; nothing when it passed them all, and is a match (until a later copy of it
    // supersedes it).
    std::optional<Refusal> visit(const VTDPlugIn& candidate);

    // Of the matches as they will be encoded, or a little more.
    std::size_t encodedBytes() const { return matches_.encodedBytes(); }

    // How many were left out since the reply would be too large.
    std::size_t leftOut() const { return leftOut_; }

    // For who explains the discovery, before it ends.
    const Query& query() const { return query_; }
    const MatchList& matches() const { return matches_; }
    effort::Account& account() { return account_; }
    std::uint64_t priceOfOne() const;  // what a candidate may need, in units of effort
    std::uint64_t shareForTokens() const { return shareForTokens_; }

    // The matches, in the order in which they were visited, with their replacement links. The end of the discovery.
    std::vector<VTForm> finish() &&;

private:
    const Query query_;
    const Annotate annotate_;
    const std::uint64_t priceOfRules_;
    effort::Account& account_;
    std::uint64_t shareForTokens_ = std::numeric_limits<std::uint64_t>::max();  // of each candidate
    MatchList matches_;
    std::size_t leftOut_ = 0;
    rules::Complaints complaints_;
};
