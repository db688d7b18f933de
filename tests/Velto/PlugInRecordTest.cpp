#include "Velto/VTAssertion.h"
#include "Velto/VTError.h"
#include "Velto/VTPlugInCore.h"
#include "tests/support/Words.h"

namespace {

constexpr char kPath[] = "/plug-ins/A.appex";

std::shared_ptr<VTPlugInCore> recordWith(const Dictionary& plugIn, const std::string& path = kPath) {
    return VTPlugInCore::initWithName("a", path, Dictionary{{"KXExtension", plugIn}}, {}, value::Uuid::random());
}

}  // namespace

TEST(PlugInRecord, SetupRefusesWhatItCannotUseAndSaysWhy) {
    const std::optional<std::string> none;
    const auto multiple = [](value::Value entries) {
        return Dictionary{{"KXExtension", Dictionary{{"Multiple", std::move(entries)}}}};
    };
    const std::string malformed = "malformed plug-in dictionary in plug-in a at /p: ";
    const struct {
        std::optional<std::string> identifier, url;
        std::optional<Dictionary> info;
        std::string line;
    } rows[] = {
        {"a", none, multiple(1), ""},
        {none, "/p", multiple(1), "missing identifier in plug-in at /p"},
        {"a", "/p", {}, "missing Info dictionary in plug-in a at /p"},
        {"a", "/p", Dictionary{}, malformed + "{}"},
        {"a", "/p", Dictionary{{"KXExtension", 1}}, malformed + "{KXExtension = 1}"},
        {"a", "/p", multiple("a"), malformed + "{KXExtension = {Multiple = a}}"},
        {"a", "/p", multiple(Dictionary{{"b", 1}}), malformed + "{KXExtension = {Multiple = {b = 1}}}"},
    };
    for (const auto& row : rows) {
        support::LogLines log;
        EXPECT_EQ(VTPlugInCore::initWithName(row.identifier, row.url, row.info, {}, {}), nullptr) << row.line;
        EXPECT_EQ(log.take(), row.line.empty() ? std::vector<std::string>{} : std::vector{row.line});
    }
}

TEST(PlugInRecord, IsItsUuidAndMustHaveOne) {
    const Dictionary info{{"KXExtension", Dictionary{}}};
    const value::Uuid uuid = value::Uuid::random();
    const auto one = VTPlugInCore::initWithName("a", "/p", info, {}, uuid);
    const auto same = VTPlugInCore::initWithName("b", "/q", info, {}, uuid);
    const auto fresh = VTPlugInCore::initWithName("a", "/p", info, {}, {});
    EXPECT_TRUE(*one == *same);
    EXPECT_EQ(one->hash(), same->hash());
    EXPECT_FALSE(*fresh == *one);
    EXPECT_FALSE(*fresh == *VTPlugInCore::initWithName("a", "/p", info, {}, {}));

    const VTPlugInCore empty;
    EXPECT_FALSE(*one == empty);
    EXPECT_THROW((void)(empty == *one), VTInternalInconsistency);
}

TEST(PlugInRecordDeathTest, AnAssertionEndsTheProcessWhereThatIsThePolicy) {
    const auto assertAndDie = [] {
        VTSetAssertionPolicy(VTAssertionPolicy::endProcess);
        (void)VTPlugInCore{}.hash();
    };
    EXPECT_DEATH(assertAndDie(), "self.uuid \\(Velto/VTPlugInCore\\)");
}

TEST(PlugInRecord, ReplacingAnInnerDictionaryRewritesTheOuterOnes) {
    const auto single = recordWith({{"Dedicated", false}});
    const Dictionary changed{{"Dedicated", true}};
    single->setPlugInDictionary(changed);
    EXPECT_EQ(single->topDictionary(), changed);
    EXPECT_EQ(*single->bundleInfoDictionary().dictionary("KXExtension"), changed);

    const auto multiplexed =
        recordWith({{"HubProtocolVersion", 2}, {"Multiple", Dictionary{{"a", Dictionary{}}, {"b", "sibling"}}}});
    multiplexed->setPlugInDictionary(changed);
    const Dictionary top{{"HubProtocolVersion", 2}, {"Multiple", Dictionary{{"a", changed}, {"b", "sibling"}}}};
    EXPECT_EQ(multiplexed->plugInDictionary(), changed);
    EXPECT_EQ(multiplexed->topDictionary(), top);
    EXPECT_EQ(multiplexed->bundleInfoDictionary(), (Dictionary{{"KXExtension", top}}));
}

TEST(PlugInRecord, DerivesItsPropertiesFromTheDictionaries) {
    const auto bare = recordWith({}, "/p/A.APPEX");
    EXPECT_FALSE(bare->isAppExtension() || bare->isDedicated() || bare->isData() || bare->isHybrid());
    EXPECT_EQ(bare->containingPath() + bare->version() + bare->protocolSpec() + bare->embeddedProtocolSpec(), "");
    EXPECT_EQ(bare->sdkSpec(), std::nullopt);

    const auto full = recordWith({{"KXExtensionProtocol", "#Data"},
                                  {"KXExtensionPointIdentifier", Array{1}},
                                  {"KXExtensionAttributes", Dictionary{{"KXExtensionVersion", "2.1"}}},
                                  {"Dedicated", "yes"},
                                  {"EmbeddedCode", 0}});
    EXPECT_TRUE(full->isAppExtension() && full->isDedicated() && full->isData() && full->isHybrid());
    EXPECT_EQ(full->version(), "2.1");
    EXPECT_EQ(full->sdkSpec(), value::Value{Array{1}});
    EXPECT_EQ(full->embeddedProtocolSpec(), "#Data");
    full->setLastModified(-5);
    EXPECT_EQ(full->timestamp(), value::Date{-5});

    VTPlugInCore record;
    record.setBundleInfoDictionary({{"Velto", 1}});
    EXPECT_TRUE(record.oldStyle());
    EXPECT_FALSE(full->oldStyle());
    record.setBundleInfoDictionary({});
    EXPECT_THROW((void)record.oldStyle(), VTInternalInconsistency);

    VTPlugInCore multiplexed;
    EXPECT_FALSE(multiplexed.setDictionaries(Dictionary{{"KXExtension", Dictionary{{"Multiple", 7}}}}));
    EXPECT_TRUE(multiplexed.isMultiplexed());
}

TEST(PlugInRecord, DiagnoseNamesTheFirstFault) {
    const Dictionary sound{{"KXExtensionProtocol", "P"},
                           {"KXExtensionAttributes", Dictionary{{"KXExtensionVersion", "1"}}},
                           {"PrincipalClass", "KXObject"}};
    constexpr char kNoProtocol[] = "missing \"KXExtensionProtocol\" key in Info.plist or SDK";
    constexpr char kOwnClass[] = "Application Extensions may not use the \"PrincipalClass\" key";
    const struct {
        const char* path;
        Dictionary plugIn;
        const char* message;
    } rows[] = {
        {kPath, sound, nullptr},
        {"/p/A.plugin", sound.changing("PrincipalClass", "Mine"), nullptr},
        {kPath, Dictionary{{"PassProxy", 1}}, kNoProtocol},
        {kPath, sound.changing("KXExtensionProtocol", 1), kNoProtocol},
        {kPath, sound.changing("KXExtensionAttributes", {}),
         "missing \"KXExtensionAttributes\" key in Info.plist or SDK"},
        {kPath, sound.changing("PrincipalClass", {}), kOwnClass},
        {kPath, sound.changing("PrincipalClass", "Mine").changing("PassProxy", 1), kOwnClass},
        {kPath, sound.changing("PassProxy", false).changing("EmbeddedCode", 1),
         "the \"PassProxy\" key is not supported on this platform"},
        {kPath, sound.changing("EmbeddedCode", 1), "hybrid plug-ins are not supported on this platform"},
    };
    for (const auto& row : rows) {
        const auto fault = recordWith(row.plugIn, row.path)->diagnose();
        EXPECT_EQ(fault, row.message ? std::optional{VTError(12, row.message)} : std::nullopt)
            << row.path << value::description(row.plugIn);
    }
    const auto nameless = recordWith(sound);
    nameless->setIdentifier("");
    EXPECT_EQ(nameless->diagnose()->message,
              "missing identifier (no KXExtensionIdentifier, nor even QFBundleIdentifier)");
}

TEST(PlugInRecord, ChangesAnAnnotationOnlyWhereThereAreSome) {
    const auto record = recordWith({});
    record->setAnnotation("election", 1);
    EXPECT_EQ(record->annotations(), std::nullopt);
    record->setAnnotations(Dictionary{{"other", 2}});
    record->setAnnotation("election", 1);
    record->setAnnotation("other", {});
    EXPECT_EQ(record->annotations(), (Dictionary{{"election", 1}}));
}
