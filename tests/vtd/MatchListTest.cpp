#include "tests/vtd/DiscoveryModel.h"
#include "vtd/MatchList.h"

namespace {

using model::Copy;
using model::resolvePlainly;

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
    return model::asTexts(std::move(list).finish());
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
