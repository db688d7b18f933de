#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Velto/VTForm.h"
#include "platform/effort/Effort.h"
#include "vtd/MatchList.h"
#include "vtd/rules/Complaints.h"
#include "vtd/rules/Rules.h"

class Exclusions;
class VTDPlugIn;

// One discovery: passes each candidate through an ordered list of named gates and collects the forms of those that
// pass. A gate lets a candidate pass or says why not, so that what answers a request also explains its answer.
//
// Each candidate pays for itself: it has a share of its own, and what the rules cost anybody. One that needs more (for
// its lists are long, and meet many patterns) is held back, and takes nothing from the next.
//
// Belongs to one request, which keeps everything it refers to alive, and to the thread that made it.
class Discovery {
public:
    struct Query {
        rules::Rules wanted;      // without any, every plug-in matches
        std::uint64_t flags = 0;  // VTDiscoveryFlags
        // Where the client's own plug-ins lie, if it has a bundle: asked for dedicated candidates only, since it may
        // look at the disk. Empty: nowhere.
        std::function<std::optional<std::string>()> clientPlugInsPath;
        std::function<bool(const VTDPlugIn&)> isOnHold = {};  // empty: nothing is
        std::shared_ptr<const Exclusions> exclusions = {};    // what the user wants no host to see; null: nothing
        // Why the client may not use a plug-in, or nothing when it may. Empty: it may use every one.
        std::function<std::optional<std::string>(const VTDPlugIn& plugIn, rules::Complaints& complaints)>
            refuseToClient = {};
        // What the matches may need as they are encoded: from the first on that would exceed it, none is exported.
        std::size_t mostEncodedBytes = std::numeric_limits<std::size_t>::max();
        std::uint64_t priceOfPolicy = 0;  // what asking that costs for any plug-in, in units of effort
    };

    // The gates that callers know by name.
    static constexpr std::string_view kExclusionsGate = "exclusions";
    static constexpr std::string_view kHostGate = "host authorization";
    static constexpr std::string_view kEffortGate = "effort";  // which every other may turn out to be

    // Why a candidate is not among the matches.
    struct Refusal {
        std::string_view gate;    // the gate's name
        std::string_view reason;  // a literal
        std::string detail;       // what the reason is about, or empty
    };

    // Sets a form's "annotations" to those of the plug-in.
    using Annotate = std::function<void(const VTDPlugIn& plugIn, VTForm& form)>;

    // The account is the request's, and outlives the discovery.
    Discovery(Query query, Annotate annotate, effort::Account& account);
    Discovery(const Discovery&) = delete;
    Discovery& operator=(const Discovery&) = delete;

    // Grants the request the shares of so many candidates, and judges whether its rules may be held against all of
    // them.
    bool isAffordable(std::size_t candidates);

    // Passes the candidate through the gates; nothing when it passed them all, and is a match (until a later copy of it
    // supersedes it).
    std::optional<Refusal> visit(const VTDPlugIn& candidate);

    // Of the matches as they will be encoded, or a little more.
    std::size_t encodedBytes() const { return matches_.encodedBytes(); }

    // How many were left out since the reply would be too large.
    std::size_t leftOut() const { return leftOut_; }

    // The matches, in the order in which they were visited, with their replacement links. The end of the discovery.
    std::vector<VTForm> finish() &&;

private:
    struct Visit;
    struct Gate;
    struct Gates;

    const Query query_;
    const Annotate annotate_;
    const std::uint64_t priceOfRules_;
    effort::Account& account_;
    std::uint64_t shareForTokens_ = std::numeric_limits<std::uint64_t>::max();  // of each candidate
    MatchList matches_;
    std::size_t leftOut_ = 0;
    rules::Complaints complaints_;
};
