#include "tests/platform/dravo/Installation.h"

namespace dravo {
namespace {

using Names = std::optional<Texts>;

// The filter asks the workspace itself, which holds no lock meanwhile, and wants nothing "unwanted".
std::string narrowed(const DVApplicationWorkspace& workspace, const Names& identifiers, const Names& points) {
    std::string found;
    const auto filter = [&](const std::string& identifier, const Dictionary& held) {
        return workspace.installedPlugins() && identifier != "unwanted" && !held.contains("unwanted");
    };
    const auto plugIns = workspace.plugins(identifiers, points, {}, filter);
    for (const auto& plugIn : *plugIns) found += (found.empty() ? "" : " ") + plugIn->pluginIdentifier();
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
    for (int i = 0; i < 400; ++i) many.emplace_back("name" + std::to_string(i));
    many.emplace_back("p");
    world.plugIn("system/PlugIns/8", "many", attribute(Array{many}));
    world.plugIn("system/PlugIns/9", "other", attribute("other"));
    world.plugIn("system/PlugIns/a", "number", attribute("r.07"));
    world.plugIn("system/PlugIns/b", "identifier", {{"KXExtensionPointIdentifier", "p.00"}});
    for (const char* identifier : {"unwanted", "x"})
        world.plugIn("system/PlugIns/"s + identifier, identifier, {{"KXExtensionPointIdentifier", "p"}});
    world.write("system/PlugIns/x/Entitlements.plist", Dictionary{{"unwanted", 1}});
    auto& workspace = world.start();
    const Names names{{"p", "q", "r.7", "r.1", "r.2", "name1", "name2", "name3", "name4", "s", "p"}};
    const struct {
        Names identifiers, points;
        const char* found;
    } rows[] = {
        {{}, {{"p"}}, "identifier attribute array top sdkAttribute sdkTop m1 many"},
        {{}, {{"q", "s", "q"}}, "array sdkAttribute many"},
        {{}, {{"r.7"}}, "many number"},  // as the rules compare
        {{}, {{"p.000", "r.007", "other"}}, "many other number identifier"},
        {{}, Names{Texts{}}, ""},
        {Names{Texts{}}, {}, ""},
        {{{"other", "m1", "unknown", "other"}}, {}, "m1 other"},
        {{{"m01", "identifier"}}, {}, "identifier m1 identifier"},
        {{{"m01", "array", "other", "identifier"}}, {{"p"}}, "identifier array m1"},
        {{{"many", "top"}}, {{"r.7", "q"}}, "many"},
        {{{"many", "m1", "other", "m1"}}, names, "m1 many"},
        {{}, Names{Texts(1'000'000, "p")}, "identifier attribute array top sdkAttribute sdkTop m1 many"},
        {Names{Texts(1'000'000, "m01")}, names, "m1"},
    };
    for (const auto& row : rows) EXPECT_EQ(narrowed(workspace, row.identifiers, row.points), row.found);
}

TEST(Narrowing, FollowsAChangedSdk) {
    Installation world;
    world.plugIn("system/PlugIns/1", "a", {{"KXExtensionPointIdentifier", "s"}});
    auto& workspace = world.start();
    EXPECT_EQ(narrowed(workspace, {}, {{"p"}}), "");
    const auto witness = world.witness();
    world.write("system/SDKs/s.plist", Dictionary{{"KXExtensionPointName", "p"}});
    world.plugIn("system/PlugIns/2", "b");  // announced when the look that sees both is over
    EXPECT_EQ(witness->told("-a +a +b"), "-a +a +b");
    EXPECT_EQ(narrowed(workspace, {}, {{"p"}}), "a");
}

}  // namespace
}  // namespace dravo
