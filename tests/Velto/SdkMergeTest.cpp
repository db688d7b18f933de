#include <algorithm>
#include <cstdlib>
#include <random>
#include <set>
#include <string>

#include <gmock/gmock.h>

#include "Velto/VTPlugInCore.h"
#include "tests/support/LogLines.h"
#include "tests/support/TemporaryDirectory.h"

using testing::ElementsAre;
using testing::IsEmpty;
using value::Array;
using value::Dictionary;
using value::Value;

namespace {

// The rule, value by value: what stands under a key when the SDK says one thing and the bundle another.
Value expected(const std::string& key, const Value* sdk, const Value* own) {
    if (sdk == nullptr) return *own;
    if (own == nullptr || key == "CleanTimeout") return *sdk;
    if (key == "Shared") {
        Array::Storage paths;
        for (const Value* list : {own, sdk}) {
            for (const Value& path : list->array() != nullptr ? *list->array() : Array{*list}) {
                const bool known = std::find(paths.begin(), paths.end(), path) != paths.end();
                if (path.string() != nullptr && !known) paths.push_back(path);
            }
        }
        return Array{paths};
    }
    if (sdk->dictionary() == nullptr || own->dictionary() == nullptr) return *own;
    std::set<std::string> keys;
    for (const Value* side : {sdk, own}) {
        for (const Dictionary::Entry& entry : *side->dictionary()) keys.insert(entry.key);
    }
    Dictionary::Builder merged;
    for (const std::string& k : keys) {
        merged.set(k, expected(k, sdk->dictionary()->find(k), own->dictionary()->find(k)));
    }
    return std::move(merged).build();
}

// Descriptions whose keys and values meet often.
class RandomDescription {
public:
    explicit RandomDescription(unsigned seed) : random_{seed} {}

    Dictionary operator()(int depth = 0) {
        Dictionary::Builder made;
        for (const char* key : {"A", "B", "CleanTimeout", "Shared", "Z"}) {
            if (below(3) != 0) made.set(key, any(depth));
        }
        return std::move(made).build();
    }

private:
    Value any(int depth) {
        switch (below(depth < 3 ? 5 : 3)) {
            case 0: return static_cast<int>(below(3));
            case 1: return letter();
            case 2: return Array{"a", letter(), static_cast<int>(below(2))};
            default: return (*this)(depth + 1);
        }
    }
    std::string letter() { return std::string(1, "abcd"[below(4)]); }
    unsigned below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }

    std::mt19937 random_;
};

Dictionary around(const Dictionary& plugIn) {
    return {{"KXExtension", plugIn}};
}

std::shared_ptr<VTPlugInCore> recordOf(const Dictionary& info, const std::string& path = "/p/A.plugin") {
    return VTPlugInCore::initWithName("a", path, info, {}, value::Uuid::random());
}

// A directory of SDK dictionaries that stands before the registry while it lives.
class SdkDirectory {
public:
    SdkDirectory() { ::setenv("VTTEST_SDK", directory_.path().c_str(), 1); }
    ~SdkDirectory() { ::unsetenv("VTTEST_SDK"); }
    SdkDirectory(const SdkDirectory&) = delete;
    SdkDirectory& operator=(const SdkDirectory&) = delete;

    void put(const std::string& name, const std::string& plugIn) const {
        directory_.write(
            name, "<plist version=\"1.0\"><dict><key>KXExtension</key><dict>" + plugIn + "</dict></dict></plist>");
    }

private:
    support::TemporaryDirectory directory_;
};

}  // namespace

TEST(SdkMerge, AgreesWithTheRuleForEveryShapeOfValues) {
    const VTPlugInCore record;
    RandomDescription random{7};
    for (int i = 0; i < 500; ++i) {
        const Value sdk = random();
        const Value own = random();
        ASSERT_EQ(Value{record.mergeDictionary(*sdk.dictionary(), *own.dictionary())}, expected("", &sdk, &own))
            << value::description(sdk) << value::description(own);
    }
}

TEST(SdkMerge, GivesEveryRecordItsCanonicalForm) {
    const auto plain = recordOf(around({{"Shared", "Library"}}));
    plain->canonicalize();
    EXPECT_EQ(plain->attributes(), (Dictionary{{"KXExtensionVersion", "1"}, {"halvern.format", "standard"}}));
    EXPECT_EQ(*plain->plugInDictionary().string("Shared"), "Library");
    EXPECT_EQ(*plain->bundleInfoDictionary().dictionary("KXExtension"), plain->plugInDictionary());

    const Dictionary appexInfo = around({{"Shared", Array{"Library"}},
                                         {"PrincipalClass", "Mine"},
                                         {"EmbeddedCode", 1},
                                         {"KXExtensionAttributes", Dictionary{{"KXExtensionVersion", 3}}}});
    const auto appex = recordOf(appexInfo.changing("QFBundleShortVersionString", "1.4"), "/p/A.appex");
    appex->canonicalize();
    EXPECT_EQ(appex->attributes(), (Dictionary{{"KXExtensionVersion", "1.4"}, {"halvern.format", "hybrid"}}));
    EXPECT_EQ(appex->protocolSpec(), "KXObject");
    EXPECT_EQ(*appex->plugInDictionary().string("PrincipalClass"), "Mine");
    EXPECT_EQ(*appex->plugInDictionary().array("Shared"), Array{"."});

    const auto multiplexed = recordOf(around({{"Multiple", Dictionary{{"a", Dictionary{}}, {"b", 1}}}}));
    multiplexed->canonicalize();
    EXPECT_EQ(multiplexed->topDictionary(),
              (Dictionary{{"Multiple", Dictionary{{"a", multiplexed->plugInDictionary()}, {"b", 1}}}}));
}

TEST(SdkMerge, TakesTheSdkFromTheTestDirectoryAndElseFromTheRegistry) {
    const SdkDirectory sdks;
    sdks.put("point", "<key>KXExtensionProtocol</key><string>P</string>");
    support::LogLines log;

    const auto found = recordOf(around({{"KXExtensionPointIdentifier", "point"}}));
    found->resolveSDK();
    EXPECT_EQ(found->protocolSpec(), "P");
    EXPECT_EQ(found->version(), "1");
    EXPECT_THAT(log.take(), IsEmpty());

    const auto missing = recordOf(around({{"KXExtensionPointIdentifier", "../point"}}));
    missing->resolveSDK();
    EXPECT_EQ(missing->protocolSpec(), "");
    EXPECT_EQ(missing->version(), "1");
    EXPECT_THAT(log.take(), ElementsAre("plug-in sdk \"../point\" not registered"));

    const auto invalid = recordOf(around({{"KXExtensionPointIdentifier", 7}}));
    invalid->resolveSDK();
    EXPECT_TRUE(invalid->attributes().empty());
    EXPECT_THAT(log.take(), ElementsAre("invalid SDK key:7"));
}

TEST(SdkMerge, AnSdkThatLeavesNoPlugInDictionaryMakesTheRecordUnusable) {
    const SdkDirectory sdks;
    sdks.put("point", "<key>Multiple</key><dict><key>b</key><dict/></dict>");
    const auto record = recordOf(around({{"KXExtensionPointIdentifier", "point"}}), "/p/A.appex");
    record->resolveSDK();
    EXPECT_TRUE(record->diagnose().has_value());
}
