#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Velto/VTForm.h"
#include "platform/value/Value.h"

// The forms that a discovery has found so far, in the order in which they came. Resolves the copies of one plug-in as
// the request's flags (VTDiscoveryFlags) say, and links the plug-ins that replace others.
//
// Copies are found through an index by identifier, so that the cost of a candidate does not grow with the list.
// Belongs to one request.
class MatchList {
public:
    explicit MatchList(std::uint64_t flags) : flags_{flags} {}

    using Position = std::size_t;
    static constexpr Position kNone = static_cast<Position>(-1);

    // Whether a candidate goes into the list, and which copy of it stays in its place, or goes when it comes.
    struct Admission {
        bool isAdmitted = true;
        Position other = kNone;
    };

    // The candidate goes into the list beside, or instead of, the copies of it that are there. Without
    // VTDiscoverEveryVersion the newest copy stays, and among copies of one version: the candidate, when it lives on
    // the system volume and the other does not, or else was registered later. Comparing is charged; once that is spent,
    // no.
    Admission judge(const VTForm& candidate) const;

    // What a plug-in's entitlement to replace others costs, in units of effort. It follows from what the plug-in says,
    // and not from who asks.
    static std::uint64_t priceOf(const std::optional<value::Value>& replacePlugIn);

    // Adds an admitted form at the end, and removes what it stands in for. The entitlement, if any, names what the
    // plug-in replaces: a text or a list of texts; of several plug-ins that claim one identifier the last counts.
    void append(VTForm form, const Admission& admission, std::optional<value::Value> replacePlugIn);

    // The copy that stands in the list for a form that was appended: itself, or what it had to go for. Null: none.
    const VTForm* standingFor(const VTForm& appended) const;
    const VTForm& operator[](Position position) const { return forms_[position]; }

    // Of the forms that are in the list, as VTForm::encodedSizeHint() has it.
    std::size_t encodedBytes() const { return encodedBytes_; }

    // Sets "overrider" in each form that another one replaces, and "overriding" in that other; then gives up the list.
    // A form that was removed after all still counts as the one that replaces.
    std::vector<VTForm> finish() &&;

private:
    // The forms of one identifier, chained in the order of the list.
    struct Copies {
        Position first;
        Position last;
        Position overrider = kNone;  // while the list is finished
    };

    // What a form says that it replaces: names that are mostly of no match, and are looked up among the matches only.
    struct Claim {
        Position by;
        value::Value names;
    };

    void remove(Position position);
    void link();

    const std::uint64_t flags_;
    std::vector<VTForm> forms_;       // removed ones included, until the list is finished
    std::vector<bool> removed_;       // by position
    std::vector<Position> nextCopy_;  // by position
    std::size_t encodedBytes_ = 0;
    bool anyRemoved_ = false;
    std::unordered_map<std::string_view, Copies> copies_;  // by identifier, whose text a form's base owns
    std::vector<Claim> claims_;                            // in the order of the list
};
