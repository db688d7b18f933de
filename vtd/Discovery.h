#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Velto/VTForm.h"
#include "platform/value/Value.h"
#include "vtd/MatchEffort.h"
#include "vtd/MatchList.h"

class Exclusions;
class VTDPlugIn;

// One discovery: passes each candidate through an ordered list of named gates and collects the forms of those that
// pass. A gate lets a candidate pass or says why not, so that what answers a request also explains its answer.
//
// Belongs to one request, which keeps everything it refers to alive, and to the thread that made it. What it spends
// on rules is bounded (MatchEffort).
class Discovery {
public:
    struct Query {
        value::Dictionary rules;  // without entries: every plug-in matches
        std::uint64_t flags = 0;  // VTDiscoveryFlags
        // Where the client's own plug-ins lie, if it has a bundle: asked for dedicated candidates only, since it may
        // look at the disk. Empty: nowhere.
        std::function<std::optional<std::string>()> clientPlugInsPath;
        std::function<bool(const VTDPlugIn&)> isOnHold = {};  // empty: nothing is
        std::shared_ptr<const Exclusions> exclusions = {};    // what the user wants no host to see; null: nothing
        // Why the client may not use a plug-in, or nothing when it may. Empty: it may use every one.
        std::function<std::optional<std::string>(const VTDPlugIn& plugIn)> refuseToClient = {};
    };

    // The gates that callers know by name.
    static constexpr std::string_view kExclusionsGate = "exclusions";
    static constexpr std::string_view kHostGate = "host authorization";

    // Why a candidate is not among the matches.
    struct Refusal {
        std::string_view gate;    // the gate's name
        std::string_view reason;  // a literal
        std::string detail;       // what the reason is about, or empty
    };

    // Sets a form's "annotations" to those of the plug-in.
    using Annotate = std::function<void(const VTDPlugIn& plugIn, VTForm& form)>;

    Discovery(Query query, Annotate annotate);
    Discovery(const Discovery&) = delete;
    Discovery& operator=(const Discovery&) = delete;

    // Passes the candidate through the gates; nothing when it passed them all, and is a match (until a later copy of it
    // supersedes it).
    std::optional<Refusal> visit(const VTDPlugIn& candidate);

    // Whether the rules and values cost more than one discovery may: the candidates from then on were left out.
    bool ranOutOfEffort() const { return effort_.isSpent(); }

    // The matches, in the order in which they were visited, with their replacement links. The end of the discovery.
    std::vector<VTForm> finish() &&;

private:
    struct Visit;
    struct Gate;
    struct Gates;

    const Query query_;
    const Annotate annotate_;
    MatchList matches_;
    MatchEffort effort_;
};
