#include "Velto/VTProtocol.h"
#include "tests/support/Words.h"
#include "tests/vtd/FakeRegistry.h"
#include "vtd/Discovery.h"
#include "vtd/VTDPlugIn.h"

namespace {

enum class Place { system, application, nowhere };

// A record without a bundle on disk: discovery reads nothing there.
std::shared_ptr<VTDPlugIn> plugInAt(Place place, bool dedicated = false) {
    const auto proxy = std::make_shared<fake::PlugIn>("org.example.one", "/a.app/PlugIns/p.plugin");
    proxy->held = {{kReplacePlugInEntitlement, "org.example.one"}};
    auto plugIn = std::make_shared<VTDPlugIn>();
    plugIn->setDvproxy(proxy);
    const Dictionary info{{"KXExtension", Dictionary{{"KXExtensionProtocol", "P"}, {"Dedicated", dedicated}}}};
    EXPECT_TRUE(plugIn->setupWithName(proxy->identifier, proxy->path, info, std::nullopt, proxy->uuid));
    plugIn->resolveSDK();
    plugIn->setOnSystemVolume(place == Place::system);
    if (place == Place::application) plugIn->setContainingUrl("/a.app");
    return plugIn;
}

void annotate(const VTDPlugIn& plugIn, VTForm& form) {
    form.set(VTFormKey::annotations, Dictionary{{"of", plugIn.identifier()}});
}

TEST(Discovery, EachGateHoldsBackWhatItShould) {
    const struct {
        const char* name;
        Place place;
        bool dedicated;
        std::uint64_t flags;
        std::optional<std::string> clientPlugIns;
        Dictionary rules;
        std::string_view gate;  // that refuses; empty: a match
    } rows[] = {
        {"in an application", Place::application, false, 0, {}, {}, ""},
        {"on the system volume, in nothing", Place::system, false, VTDiscoverSystemVolumeOnly, {}, {}, ""},
        {"in nothing", Place::nowhere, false, 0, {}, {}, "location"},
        {"in nothing, for all", Place::nowhere, false, VTDiscoverSystemVolumeOnly | VTDiscoverAll, {}, {}, ""},
        {"not on the system volume", Place::application, false, VTDiscoverSystemVolumeOnly, {}, {}, "location"},
        {"dedicated to another", Place::application, true, 0, "/b.app/PlugIns", {}, "dedication"},
        {"dedicated to the client, by prefix", Place::application, true, 0, "/a.app/Plug", {}, ""},
        {"dedicated, client without a bundle", Place::application, true, 0, {}, {}, "dedication"},
        {"dedicated, client without a directory", Place::application, true, 0, "", {}, "dedication"},
        {"dedicated, for all", Place::application, true, VTDiscoverAll, {}, {}, ""},
        {"rules are for all", Place::nowhere, true, VTDiscoverAll, {}, {{"A", false}, {"B", true}}, "rules"},
        {"rules that match", Place::application, false, 0, {}, {{"A", false}}, ""},
    };
    for (const auto& row : rows) {
        Discovery discovery{{row.rules, row.flags, [&row] { return row.clientPlugIns; }}, annotate};
        const auto refusal = discovery.visit(*plugInAt(row.place, row.dedicated));
        EXPECT_EQ(refusal ? refusal->gate : "", row.gate) << row.name;
        EXPECT_TRUE(row.gate != "rules" || refusal->detail == "B") << row.name;
        EXPECT_EQ(std::move(discovery).finish().size(), refusal ? 0U : 1U) << row.name;
    }
}

TEST(Discovery, AHoldHidesAPlugInButFromWhoSeesAll) {
    const auto plugIn = plugInAt(Place::system);
    for (const std::uint64_t flags : {0, 0x200}) {
        Discovery::Query query;
        query.flags = flags;
        query.isOnHold = [&](const VTDPlugIn& asked) { return asked == *plugIn; };
        Discovery discovery{std::move(query), annotate};
        const auto refusal = discovery.visit(*plugIn);
        EXPECT_EQ(refusal ? refusal->gate : "", flags == 0 ? "holds" : "") << flags;
    }
}

// Without a bound these two would compare a hundred million times, while everybody waits.
TEST(Discovery, RulesAndValuesThatTakeTooLongEndItAndNothingElse) {
    const auto named = [](std::size_t values) {
        auto plugIn = plugInAt(Place::system);
        Dictionary::Builder own{plugIn->plugInDictionary()};
        value::Array::Storage names(values, "no");
        names.push_back("yes");
        own.set("KXExtensionAttributes", Dictionary{{"Names", value::Array{std::move(names)}}});
        plugIn->setPlugInDictionary(std::move(own).build());
        return plugIn;
    };
    value::Array::Storage patterns(10'000, "never");
    patterns.push_back("yes");
    Discovery discovery{
        {{{"Names", value::Array{std::move(patterns)}}}, VTDiscoverEveryVersion | VTDiscoverEveryCopy, {}}, annotate};
    EXPECT_FALSE(discovery.visit(*named(1)));
    EXPECT_FALSE(discovery.ranOutOfEffort());
    EXPECT_TRUE(discovery.visit(*named(10'000)));
    EXPECT_TRUE(discovery.ranOutOfEffort());
    EXPECT_TRUE(discovery.visit(*named(1)));
    EXPECT_EQ(std::move(discovery).finish().size(), 1U);
}

TEST(Discovery, MatchCarriesItsAnnotationsAndLinksAndRefusesItsOwnCopy) {
    const auto plugIn = plugInAt(Place::system);
    Discovery discovery{{{}, 0, {}}, annotate};
    EXPECT_FALSE(discovery.visit(*plugIn));
    EXPECT_EQ(discovery.visit(*plugIn)->gate, "duplicates");
    const Dictionary form = std::move(discovery).finish().at(0).dictionary();
    EXPECT_EQ(*form.dictionary(VTFormKey::annotations), (Dictionary{{"of", "org.example.one"}}));
    EXPECT_EQ(*form.string(VTFormKey::overrider), plugIn->uuid().string());
}

}  // namespace
