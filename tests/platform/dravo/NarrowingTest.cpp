#include <algorithm>
#include <random>

#include "platform/text/NumericCompare.h"
#include "tests/platform/dravo/Installation.h"

namespace dravo {
namespace {

using Names = std::optional<Texts>;

Texts narrowed(const DVApplicationWorkspace& workspace, const Names& identifiers, const Names& points) {
    Texts found;
    const auto plugIns = workspace.plugins(identifiers, points, {}, nullptr);
    for (const auto& plugIn : *plugIns) {
        found.push_back(plugIn->pluginIdentifier());
    }
    return found;
}

TEST(Narrowing, FindsWhateverTheRulesCouldFindUnderTheExtensionPointName) {
    Installation world;
    const auto attribute = [](const value::Value& name) {
        return Dictionary{{"KXExtensionAttributes", Dictionary{{"KXExtensionPointName", name}}}};
    };
    world.plugIn("system/PlugIns/1", "identifier", {{"KXExtensionPointIdentifier", "p"}});
    world.plugIn("system/PlugIns/2", "attribute", attribute("p"));
    world.plugIn("system/PlugIns/3", "array", attribute(Array{"q", 3, "p"}));
    world.write(
        "system/PlugIns/4/Info.plist",
        Dictionary{{"QFBundleIdentifier", "top"}, {"KXExtensionPointName", "p"}, {"KXExtension", Dictionary{}}});
    world.plugIn("system/PlugIns/5", "sdkAttribute", {{"KXExtensionPointIdentifier", "s"}});
    world.write("system/SDKs/s.plist", Dictionary{{"KXExtension", attribute("p")}});
    world.plugIn("system/PlugIns/6", "sdkTop", {{"KXExtensionPointIdentifier", "t"}});
    world.write("system/SDKs/t.plist", Dictionary{{"KXExtensionPointName", "p"}});
    world.plugIn("system/PlugIns/7", "multiple",
                 {{"Multiple", Dictionary{{"m1", attribute("p")}, {"m2", Dictionary{}}}}});
    Array::Storage many;
    for (int i = 0; i < 1000; ++i) many.emplace_back("name" + std::to_string(i));
    many.emplace_back("p");
    world.plugIn("system/PlugIns/8", "many", attribute(Array{many}));
    world.plugIn("system/PlugIns/9", "other", attribute("other"));
    world.plugIn("system/PlugIns/a", "number", attribute("r.07"));
    auto& workspace = world.start();
    EXPECT_THAT(narrowed(workspace, {}, {{"p"}}),
                ElementsAre("identifier", "attribute", "array", "top", "sdkAttribute", "sdkTop", "m1", "many"));
    EXPECT_THAT(narrowed(workspace, {}, {{"q", "s"}}), ElementsAre("array", "sdkAttribute", "many"));
    EXPECT_THAT(narrowed(workspace, {}, {{"r.7"}}), ElementsAre("many", "number"));  // as the rules compare
    EXPECT_THAT(narrowed(workspace, {{"array", "other"}}, {{"p"}}), ElementsAre("array"));
    EXPECT_THAT(narrowed(workspace, {}, Names{Texts{}}), ElementsAre());
}

TEST(Narrowing, FollowsAChangedSdk) {
    Installation world;
    world.plugIn("system/PlugIns/1", "a", {{"KXExtensionPointIdentifier", "s"}});
    auto& workspace = world.start();
    EXPECT_THAT(narrowed(workspace, {}, {{"p"}}), ElementsAre());
    const auto witness = std::make_shared<Witness>();
    workspace.addObserver(witness);
    world.write("system/SDKs/s.plist", Dictionary{{"KXExtensionPointName", "p"}});
    world.plugIn("system/PlugIns/2", "b");  // announced when the look that sees both is over
    EXPECT_THAT(witness->await(1), ElementsAre("+b"));
    EXPECT_THAT(narrowed(workspace, {}, {{"p"}}), ElementsAre("a"));
}

TEST(Narrowing, FilterSeesIdentifierAndEntitlementsAndHoldsNoLock) {
    Installation world;
    for (const char* name : {"1", "2"}) world.plugIn("system/PlugIns/"s + name, name);
    world.write("system/PlugIns/2/Entitlements.plist", Dictionary{{"e", 1}});
    const auto& workspace = world.start();
    const auto accepted = workspace.plugins({}, {}, {}, [&](const std::string& identifier, const Dictionary& held) {
        return workspace.installedPlugins()->size() == 2 && identifier == "2" && held.contains("e");
    });
    EXPECT_THAT(*accepted, SizeIs(1));
}

// The obvious way: every plug-in, compared one by one.
TEST(Narrowing, EqualsComparingEveryPlugIn) {
    Installation world;
    std::mt19937 random{7};
    const auto pick = [&](int limit) { return std::to_string(std::uniform_int_distribution{0, limit}(random)); };
    struct Installed {
        std::string identifier;
        Texts points;
    };
    std::vector<Installed> installed;
    for (int i = 0; i < 300; ++i) {
        Installed one{"id." + pick(60) + (i % 7 == 0 ? ".00" : ""), {"p" + pick(9)}};
        Dictionary description{{"KXExtensionPointIdentifier", one.points[0]}};
        if (i % 3 == 0) {
            one.points.push_back("p0" + pick(9));
            description =
                description.changing("KXExtensionAttributes", Dictionary{{"KXExtensionPointName", one.points.back()}});
        }
        world.plugIn("system/PlugIns/" + std::to_string(1000 + i), one.identifier, description);
        installed.push_back(std::move(one));
    }
    const auto& workspace = world.start();
    ASSERT_EQ(workspace.installedPlugins()->size(), installed.size());
    const auto anyOf = [](const Names& wanted, const Texts& texts) {
        return !wanted || std::any_of(wanted->begin(), wanted->end(), [&](const std::string& one) {
            return std::any_of(texts.begin(), texts.end(), [&](const std::string& text) {
                return text::compareNumerically(one, text) == std::strong_ordering::equal;
            });
        });
    };
    for (int query = 0; query < 500; ++query) {
        Names identifiers, points;
        if (query % 2 == 0) identifiers.emplace();
        if (query % 3 != 0) points.emplace();
        for (int i = query % 5; i > 0; --i) {
            if (identifiers) identifiers->push_back("id.0" + pick(60) + (i % 2 == 0 ? ".0" : ""));
            if (points) points->push_back("p" + pick(9));
        }
        Texts expected;
        for (const Installed& one : installed) {
            if (anyOf(identifiers, {one.identifier}) && anyOf(points, one.points)) expected.push_back(one.identifier);
        }
        EXPECT_EQ(narrowed(workspace, identifiers, points), expected) << query;
    }
}

}  // namespace
}  // namespace dravo
