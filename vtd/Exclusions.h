#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/value/Value.h"
#include "vtd/rules/Rules.h"

class VTDPlugIn;
namespace rules {
class Complaints;
}

// The user's exclusions, made ready for the many candidates of many discoveries: rules dictionaries, of which any that
// matches a plug-in hides it from every host.
//
// People exclude plug-ins by name: those that name identifiers literally are found through an index, so that a hundred
// of them cost a candidate little more than one. The answer, and what it evaluates on the way, is the same as when they
// are tried one after another.
//
// Immutable: any thread.
class Exclusions {
public:
    explicit Exclusions(value::Array rules);  // elements that are no dictionary exclude nothing

    bool cover(const VTDPlugIn& plugIn, rules::Complaints& complaints) const {
        return covering(plugIn, complaints) != kNone;
    }

    // The first that does, by its place among the dictionaries of the array; kNone when none does.
    static constexpr std::size_t kNone = static_cast<std::size_t>(-1);
    std::size_t covering(const VTDPlugIn& plugIn, rules::Complaints& complaints) const;
    const rules::Rules& operator[](std::size_t place) const { return rules_[place]; }

    // What trying them on any plug-in costs, in units of effort.
    std::uint64_t price() const { return price_; }

    // Whether they were made from this very array.
    bool areOf(const value::Array& rules) const { return rules.begin() == source_.begin(); }

private:
    struct Named {
        std::uint64_t identifier;  // its hash
        std::size_t position;
        friend auto operator<=>(const Named&, const Named&) = default;
    };

    const value::Array source_;
    std::vector<rules::Rules> rules_;
    std::uint64_t price_ = 0;
    std::vector<Named> named_;         // in ascending order
    std::vector<std::size_t> others_;  // positions, in ascending order
};
