#include "Velto/VTPlugInCore.h"
#include "tests/support/Words.h"

namespace {

Dictionary around(const Dictionary& plugIn) {
    return {{"KXExtension", plugIn}};
}

std::shared_ptr<VTPlugInCore> recordOf(const Dictionary& info, const std::string& path = "/p/A.plugin") {
    return VTPlugInCore::initWithName("a", path, info, {}, value::Uuid::random());
}

}  // namespace

TEST(SdkMerge, GoesKeyByKeyTheBundleBeforeTheSdkButForTwoKeys) {
    const Dictionary one{{"a", 1}}, two{{"a", 2}, {"b", 2}};
    const struct {
        const char* key;
        std::optional<Value> sdk, own, merged;
    } rows[] = {
        {"K", 1, {}, 1},
        {"K", Array{1}, Array{2}, Array{2}},
        {"K", one, 2, 2},
        {"K", 1, two, two},
        {"K", two, one, Dictionary{{"a", 1}, {"b", 2}}},
        {"K", Dictionary{{"K", two}, {"CleanTimeout", 1}}, Dictionary{{"K", one}, {"CleanTimeout", 2}},
         Dictionary{{"K", Dictionary{{"a", 1}, {"b", 2}}}, {"CleanTimeout", 1}}},
        {"CleanTimeout", two, one, two},
        {"CleanTimeout", {}, 2, 2},
        {"Shared", Array{"a", "b"}, Array{"c", "a", "c"}, Array{"c", "a", "b"}},
        {"Shared", "a", Array{7, "b"}, Array{"b", "a"}},
        {"Shared", one, "b", Array{"b"}},
        {"Shared", Array{"a", "a"}, {}, Array{"a", "a"}},
        {"Shared", {}, 7, 7},
    };
    for (const auto& row : rows) {
        const auto holding = [&](const std::optional<Value>& value) { return Dictionary{}.changing(row.key, value); };
        EXPECT_EQ(VTPlugInCore{}.mergeDictionary(holding(row.sdk), holding(row.own)), holding(row.merged))
            << value::description(holding(row.merged));
    }
}

TEST(SdkMerge, GivesEveryRecordItsCanonicalForm) {
    const auto plain = recordOf(around({{"Shared", "Library"}}));
    plain->canonicalize();
    EXPECT_EQ(plain->attributes(), (Dictionary{{"KXExtensionVersion", "1"}, {"halvern.format", "standard"}}));
    EXPECT_EQ(*plain->plugInDictionary().string("Shared"), "Library");

    const auto numbered = recordOf(around({}).changing("QFBundleShortVersionString", 7));
    numbered->canonicalize();
    EXPECT_EQ(numbered->version(), "7");

    const Dictionary appexInfo = around({{"Shared", Array{"Library"}},
                                         {"PrincipalClass", "Mine"},
                                         {"EmbeddedCode", 1},
                                         {"KXExtensionAttributes", Dictionary{{"KXExtensionVersion", 3}}}});
    const auto appex = recordOf(appexInfo.changing("QFBundleShortVersionString", "1.4"), "/p/A.appex");
    appex->canonicalize();
    EXPECT_EQ(appex->attributes(), (Dictionary{{"KXExtensionVersion", 3}, {"halvern.format", "hybrid"}}));
    EXPECT_EQ(appex->version(), "3");
    EXPECT_EQ(appex->protocolSpec(), "KXObject");
    EXPECT_EQ(*appex->plugInDictionary().string("PrincipalClass"), "Mine");
    EXPECT_EQ(*appex->plugInDictionary().array("Shared"), Array{"."});
}

TEST(SdkMerge, TakesTheSdkFromTheTestDirectoryAndElseFromTheRegistry) {
    const support::TemporaryDirectory sdks;
    sdks.writeList("point", around({{"KXExtensionProtocol", "P"}}));
    sdks.writeList("several", around({{"Multiple", Dictionary{{"b", Dictionary{}}}}}));
    ::setenv("VTTEST_SDK", sdks.path().c_str(), 1);
    support::LogLines log;
    const auto resolved = [](const Value& point) {
        auto record = recordOf(around({{"KXExtensionPointIdentifier", point}}));
        record->resolveSDK();
        return record->protocolSpec() + record->version();
    };
    EXPECT_EQ(resolved("point"), "P1");
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_EQ(resolved("../point"), "1");
    EXPECT_THAT(log.take(), ElementsAre("plug-in sdk \"../point\" not registered"));
    EXPECT_EQ(resolved(7), "") << "not even made canonical";
    EXPECT_THAT(log.take(), ElementsAre("invalid SDK key:7"));

    const auto record = recordOf(around({{"KXExtensionPointIdentifier", "several"}}), "/p/A.appex");
    record->resolveSDK();
    EXPECT_TRUE(record->diagnose().has_value()) << "the SDK leaves it no dictionary";
    ::unsetenv("VTTEST_SDK");
}
