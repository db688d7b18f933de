#include <random>

#include "Velto/VTProtocol.h"
#include "Velto/VTVersionComparison.h"
#include "tests/support/Words.h"
#include "vtd/MatchList.h"

namespace {

struct Copy {
    std::string uuid, identifier, version = "1";
    bool onSystem = false;
    int modified = 0;
    std::optional<Value> replaces = {};
};

std::vector<VTForm> resolve(const std::vector<Copy>& visited, std::uint64_t flags) {
    MatchList list{flags};
    for (const Copy& copy : visited) {
        VTForm form{Dictionary{{VTFormKey::identifier, copy.identifier},
                               {VTFormKey::version, copy.version},
                               {VTFormKey::systemResident, copy.onSystem},
                               {VTFormKey::lastModified, copy.modified},
                               {VTFormKey::uuid, copy.uuid}}};
        if (list.admits(form)) list.append(std::move(form), copy.replaces ? &*copy.replaces : nullptr);
    }
    return std::move(list).finish();
}

// The rules of resolution as slow and as plain as they can be said: one list, walked from the front.
std::string resolvePlainly(const std::vector<Copy>& visited, std::uint64_t flags) {
    std::vector<Copy> list;
    for (const Copy& p : visited) {
        bool dropped = false;
        for (std::size_t i = 0; i < list.size(); ++i) {
            const Copy x = list[i];
            if (x.identifier != p.identifier) continue;
            const auto c = compareVersionString(p.version, x.version);
            if ((flags & 1) != 0 && (std::is_neq(c) || (flags & 4) != 0)) continue;
            const bool winsTie = (p.onSystem && !x.onSystem) || p.modified > x.modified;
            const bool wins = std::is_gt(c) || (std::is_eq(c) && winsTie);
            if (wins) list.erase(list.begin() + static_cast<std::ptrdiff_t>(i));
            dropped = !wins;
            break;
        }
        if (!dropped) list.push_back(p);
    }
    std::string uuids;
    for (const Copy& copy : list) uuids += copy.uuid;
    return uuids;
}

TEST(MatchList, ResolvesCopiesAsTheFlagsSayWhateverComes) {
    std::mt19937 random{20261122};
    const auto below = [&](unsigned bound) { return static_cast<int>(random() % bound); };
    const char* const versions[] = {"1", "1.0", "01", "1.10", "1.9", "", "2b"};
    for (int round = 0; round < 300; ++round) {
        std::vector<Copy> visited;
        for (char uuid = 'A'; uuid < 'M'; ++uuid) {
            const std::string identifier(1, static_cast<char>('a' + below(3)));
            visited.push_back({{uuid}, identifier, versions[below(7)], below(2) == 1, below(3) - 1});
        }
        for (const std::uint64_t flags : {0U, 1U, 4U, 5U}) {
            std::string kept;
            for (const VTForm& form : resolve(visited, flags)) kept += form.uuid();
            ASSERT_EQ(kept, resolvePlainly(visited, flags)) << "round " << round << " flags " << flags;
        }
    }
}

TEST(MatchList, LinksPlugInsToTheLastThatClaimsToReplaceThem) {
    const struct {
        const char* name;
        std::vector<Copy> visited;
        const char* links;  // OVERRIDER>uuid>OVERRIDING for each form
    } rows[] = {
        {"one that comes later", {{"R", "r", "1", false, 0, "x"}, {"X", "x"}}, " >R>x R>X>"},
        {"nothing to replace", {{"R", "r", "1", false, 0, "x"}, {"Y", "y"}}, " >R> >Y>"},
        {"the last claim counts",
         {{"X", "x"}, {"R", "r", "1", false, 0, "x"}, {"S", "s", "1", false, 0, Array{7, "x"}}},
         " S>X> >R> >S>x"},
        {"several: the last in the list is named",
         {{"R", "r", "1", false, 0, Array{"y", "x"}}, {"X", "x"}, {"Y", "y"}},
         " >R>y R>X> R>Y>"},
        {"itself", {{"X", "x", "1", false, 0, "x"}}, " X>X>x"},
        {"a claim outlives its form", {{"R", "r", "1", false, 0, "x"}, {"S", "r", "2"}, {"X", "x"}}, " >S> R>X>"},
    };
    for (const auto& row : rows) {
        std::string links;
        for (const VTForm& form : resolve(row.visited, 0)) {
            const Dictionary entries = form.dictionary();
            const auto text = [&](const char* key) { return entries.contains(key) ? *entries.string(key) : ""; };
            links += " " + text(VTFormKey::overrider) + ">" + form.uuid() + ">" + text(VTFormKey::overriding);
        }
        EXPECT_EQ(links, row.links) << row.name;
    }
}

}  // namespace
