#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <tuple>

#include "platform/dravo/records/Facts.h"

// The facts that the registry keeps of applications, bundles and plug-ins, each declared once more beside its member:
// the tables of the store, what is written and read back, and what makes two records differ follow from here. Whoever
// adds a member and forgets it here is stopped by the compiler; a store of before needs a step in Store.cpp, too.
namespace dravo {

// Whether a record that differs from the one before in nothing but this fact is another one to everybody: announced as
// gone and come. What does not count is either the registry's own bookkeeping or follows from a fact that does.
enum class Counts : std::uint8_t {
    no,
    yes,
    ifKnown,  // what only one of the two knows is no difference
};

template <typename Facts, typename Member>
struct Column {
    using Fact = Member;

    const char* name;  // in the store; its type there follows from the member's
    Member Facts::*member;
    Counts counts;
};
template <typename Facts, typename Member>
Column(const char*, Member Facts::*, Counts) -> Column<Facts, Member>;

inline constexpr std::tuple kApplicationColumns{
    Column{"container", &ApplicationFacts::containerPath, Counts::yes},
    Column{"identifier", &ApplicationFacts::identifier, Counts::yes},
    Column{"name", &ApplicationFacts::name, Counts::yes},
    Column{"info", &ApplicationFacts::info, Counts::no},
    Column{"identity", &ApplicationFacts::identity, Counts::no},  // see sameDirectory()
};

inline constexpr std::tuple kBundleColumns{
    Column{"stamps", &BundleFacts::stamps, Counts::no},
    Column{"digest", &BundleFacts::digest, Counts::yes},
    Column{"identifier", &BundleFacts::identifier, Counts::no},  // this and the next three follow from the digest
    Column{"version", &BundleFacts::version, Counts::no},
    Column{"displayName", &BundleFacts::displayName, Counts::no},
    Column{"shortName", &BundleFacts::shortName, Counts::no},
    Column{"entitlements", &BundleFacts::entitlements, Counts::yes},
    Column{"refusal", &BundleFacts::refusal, Counts::yes},
    Column{"remark", &BundleFacts::remark, Counts::no},
    Column{"identity", &BundleFacts::identity, Counts::no},
};

inline constexpr std::tuple kPlugInColumns{
    Column{"uuid", &PlugInFacts::uuid, Counts::yes},
    Column{"identifier", &PlugInFacts::identifier, Counts::yes},
    Column{"registered", &PlugInFacts::registered, Counts::yes},
    Column{"extensionPoint", &PlugInFacts::extensionPoint, Counts::yes},
    Column{"pointNames", &PlugInFacts::pointNames, Counts::yes},
    Column{"anyPoint", &PlugInFacts::anyPoint, Counts::yes},
    Column{"sdk", &PlugInFacts::sdk, Counts::ifKnown},
};

namespace columns {

// Calls with each column, in their order.
template <typename Columns, typename Visit>
constexpr void forEach(const Columns& columns, const Visit& visit) {
    std::apply([&](const auto&... column) { (visit(column), ...); }, columns);
}

// Whether all columns have it.
template <typename Columns, typename Has>
constexpr bool all(const Columns& columns, const Has& has) {
    return std::apply([&](const auto&... column) { return (has(column) && ...); }, columns);
}

struct Anything {
    template <typename T>
    operator T() const;
};

// The number of a structure's members: how many initialisers it takes.
template <typename Facts, typename... Initialisers>
constexpr std::size_t membersOf() {
    if constexpr (requires { Facts{Initialisers{}..., Anything{}}; }) {
        return membersOf<Facts, Initialisers..., Anything>();
    } else {
        return sizeof...(Initialisers);
    }
}

// A row's number stands in the store beside the facts, and so do a bundle's plug-ins.
static_assert(membersOf<ApplicationFacts>() == 1 + std::tuple_size_v<decltype(kApplicationColumns)>);
static_assert(membersOf<BundleFacts>() == 2 + std::tuple_size_v<decltype(kBundleColumns)>);
static_assert(membersOf<PlugInFacts>() == std::tuple_size_v<decltype(kPlugInColumns)>);

}  // namespace columns

// Whether two are the same in all that counts.
template <typename Columns, typename Facts>
bool sameFacts(const Columns& columns, const Facts& a, const Facts& b) {
    return columns::all(columns, [&](const auto& column) {
        const auto &x = a.*column.member, &y = b.*column.member;
        if (column.counts == Counts::no) return true;
        if constexpr (requires { x.has_value(); }) {
            if (column.counts == Counts::ifKnown && (!x || !y)) return true;
        }
        return x == y;
    });
}

}  // namespace dravo
