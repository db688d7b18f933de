#include <algorithm>
#include <random>

#include "Velto/VTProtocol.h"
#include "Velto/VTVersionComparison.h"
#include "tests/support/Words.h"
#include "vtd/MatchList.h"

namespace {

struct Copy {
    std::string uuid, identifier, version;
    bool onSystem;
    int modified;
    Texts replaces;
};

// The matches in their order: for each the UUID, that of its overrider and the identifier of what it overrides.
Texts resolve(const std::vector<Copy>& visited, std::uint64_t flags) {
    MatchList list{flags};
    for (const Copy& copy : visited) {
        VTForm form{Dictionary{{VTFormKey::identifier, copy.identifier},
                               {VTFormKey::version, copy.version},
                               {VTFormKey::systemResident, copy.onSystem},
                               {VTFormKey::lastModified, copy.modified},
                               {VTFormKey::uuid, copy.uuid}}};
        if (!list.admits(form)) continue;
        const Value one = copy.replaces.empty() ? Value{7} : Value{copy.replaces[0]};
        const Value several = Array{Array::Storage{copy.replaces.begin(), copy.replaces.end()}};
        list.append(std::move(form), copy.replaces.size() == 1 ? &one : &several);
    }
    Texts matches;
    for (const VTForm& form : std::move(list).finish()) {
        const Dictionary entries = form.dictionary();
        const auto text = [&](const char* key) { return entries.contains(key) ? *entries.string(key) : ""; };
        matches.push_back(form.uuid() + "<" + text(VTFormKey::overrider) + ">" + text(VTFormKey::overriding));
    }
    return matches;
}

// The rules of resolution as slow and as plain as they can be said: one list, walked from the front.
Texts resolvePlainly(const std::vector<Copy>& visited, std::uint64_t flags) {
    std::vector<Copy> list, admitted;
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
        if (dropped) continue;
        list.push_back(p);
        admitted.push_back(p);
    }
    // The last claim to replace something counts, even one of a form that went; of several replaced the last is named.
    const auto overrider = [&](const Copy& x) {
        std::string last;
        for (const Copy& p : admitted) {
            if (std::count(p.replaces.begin(), p.replaces.end(), x.identifier) > 0) last = p.uuid;
        }
        return last;
    };
    Texts matches;
    for (const Copy& p : list) {
        std::string overridden;
        for (const Copy& x : list) {
            if (overrider(x) == p.uuid) overridden = x.identifier;
        }
        matches.push_back(p.uuid + "<" + overrider(p) + ">" + overridden);
    }
    return matches;
}

TEST(MatchList, ResolvesCopiesAndLinksReplacementsAsSaidWhateverComes) {
    std::mt19937 random{1};
    const auto below = [&](unsigned bound) { return static_cast<int>(random() % bound); };
    const auto identifier = [&] { return std::string(1, static_cast<char>('a' + below(4))); };
    const char* const versions[] = {"1", "1.0", "01", "1.10", "1.9", "", "2b"};
    for (int round = 0; round < 400; ++round) {
        std::vector<Copy> visited;
        for (char uuid = 'A'; uuid < 'M'; ++uuid) {
            visited.push_back({{uuid}, identifier(), versions[below(7)], below(2) == 1, below(3) - 1, {}});
            for (int claims = std::max(below(8) - 5, 0); claims > 0; --claims) {
                visited.back().replaces.push_back(identifier());
            }
        }
        for (const std::uint64_t flags : {0U, 1U, 4U, 5U}) {
            ASSERT_EQ(resolve(visited, flags), resolvePlainly(visited, flags))
                << "round " << round << " flags " << flags;
        }
    }
}

}  // namespace
