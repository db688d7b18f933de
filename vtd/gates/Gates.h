#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Velto/VTForm.h"
#include "Velto/VTProtocol.h"
#include "vtd/MatchList.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/rules/Complaints.h"
#include "vtd/rules/Rules.h"

class Exclusions;

// What stands between a candidate and the matches of a discovery: an ordered list of named gates, each of which lets a
// candidate pass or says why not. A discovery asks them up to the first that refuses, an explanation asks all of them:
// there is no other place that knows the answers.
//
// A gate changes nothing but its visit. All of it belongs to one request, and to the thread that made it.
namespace gates {

// What a request wants, and what it is judged by.
struct Query {
    rules::Rules wanted;      // without any, every plug-in matches
    std::uint64_t flags = 0;  // VTDiscoveryFlags
    // Where the host's own plug-ins lie, if it has a bundle: asked for dedicated candidates only, since it may look at
    // the disk. Empty: nowhere.
    std::function<std::optional<std::string>()> clientPlugInsPath;
    std::function<bool(const VTDPlugIn&)> isOnHold = {};  // empty: nothing is
    std::shared_ptr<const Exclusions> exclusions = {};    // what the user wants no host to see; null: nothing
    // Why the host may not use a plug-in, or nothing when it may. Empty: it may use every one.
    std::function<std::optional<VTDPlugIn::HostRefusal>(const VTDPlugIn& plugIn, rules::Complaints& complaints)>
        refuseToClient = {};
    // What the matches may need as they are encoded: from the first on that would exceed it, none is exported.
    std::size_t mostEncodedBytes = std::numeric_limits<std::size_t>::max();
    std::uint64_t priceOfPolicy = 0;  // what asking that costs for any plug-in, in units of effort

    bool asksFor(std::uint64_t flag) const { return (flags & flag) != 0; }
};

// A candidate on its way through the gates.
struct Visit {
    const VTDPlugIn& candidate;
    const Query& query;
    const MatchList& matches;  // those before it
    rules::Complaints& complaints;
    const std::uint64_t shareForTokens;
    bool isFull;  // nothing more fits into the reply; set by the gate that finds it so

    // What the gates find out on the way.
    std::optional<VTForm> form = {};  // once the candidate has been exported
    std::optional<value::Error> exportError = {};
    std::optional<value::Value> replacePlugIn = {};  // the candidate's entitlement
    bool sharesTooMuch = false;
    MatchList::Admission admission = {};
};

enum class Name : std::uint8_t { location, dedication, holds, rules, exclusions, host, exported, duplicates };

struct Reason {
    std::string_view text;    // a literal
    std::string detail = {};  // what it is about, or empty
};

struct Gate {
    // Whether VTDiscoverAll leaves the gate out.
    enum class Scope : std::uint8_t { always, unlessAll };

    Name name;
    std::string_view text;  // the name, as it is documented
    Scope scope;
    std::optional<Reason> (*examine)(Visit& visit);  // nothing: pass

    bool isAsked(const Query& query) const { return scope == Scope::always || !query.asksFor(VTDiscoverAll); }
};

inline constexpr std::size_t kCount = 8;
extern const Gate kInOrder[kCount];

// Which every gate may turn out to be: a verdict that was reached with nothing left to spend is none.
inline constexpr std::string_view kEffort = "effort";

}  // namespace gates
