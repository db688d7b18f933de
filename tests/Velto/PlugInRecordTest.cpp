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
    const auto multiple = [](value::Value entries) {
        return Dictionary{{"KXExtension", Dictionary{{"Multiple", std::move(entries)}}}};
    };
    const std::string malformed = "malformed plug-in dictionary in plug-in a at /p: ";
    const struct {
        std::optional<std::string> identifier, url;
        std::optional<Value> info;
        std::string line;
    } rows[] = {
        {"a", {}, multiple(1), ""},
        {{}, "/p", multiple(1), "missing identifier in plug-in at /p"},
        {"a", "/p", {}, "missing Info dictionary in plug-in a at /p"},
        {"a", "/p", Dictionary{}, malformed + "{}"},
        {"a", "/p", "text", malformed + "text"},
        {"a", "/p", Dictionary{{"KXExtension", 1}}, malformed + "{KXExtension = 1}"},
        {"a", "/p", multiple(Dictionary{{"b", 1}}), malformed + "{KXExtension = {Multiple = {b = 1}}}"},
    };
    for (const auto& row : rows) {
        support::LogLines log;
        EXPECT_EQ(VTPlugInCore::initWithName(row.identifier, row.url, row.info, {}, {}), nullptr) << row.line;
        EXPECT_EQ(log.take(), row.line.empty() ? Texts{} : Texts{row.line});
    }
}

TEST(PlugInRecord, IsItsUuidAndMustHaveOne) {
    const Dictionary info{{"KXExtension", Dictionary{}}};
    const value::Uuid uuid = value::Uuid::random();
    const auto one = VTPlugInCore::initWithName("a", "/p", info, {}, uuid);
    const auto same = VTPlugInCore::initWithName("b", "/q", info, {}, uuid);
    const auto fresh = VTPlugInCore::initWithName("a", "/p", info, {}, {});
    EXPECT_TRUE(*one == *same && one->hash() == same->hash());
    EXPECT_FALSE(*fresh == *one || *fresh == *VTPlugInCore::initWithName("a", "/p", info, {}, {}));
    EXPECT_FALSE(*one == VTPlugInCore{});
    EXPECT_THROW((void)(VTPlugInCore{} == *one), VTInternalInconsistency);
}

TEST(PlugInRecordDeathTest, AnAssertionEndsTheProcessWhereThatIsThePolicy) {
    const auto assertAndDie = [] {
        VTSetAssertionPolicy(VTAssertionPolicy::endProcess);
        (void)VTPlugInCore{}.hash();
    };
    EXPECT_DEATH(assertAndDie(), "self.uuid \\(Velto/VTPlugInCore\\)");
}

TEST(PlugInRecord, ReplacingAnInnerDictionaryRewritesTheOuterOnes) {
    const Dictionary changed{{"Dedicated", true}};
    const auto multiplexed =
        recordWith({{"HubProtocolVersion", 2}, {"Multiple", Dictionary{{"a", Dictionary{}}, {"b", "sibling"}}}});
    multiplexed->setPlugInDictionary(changed);
    const Dictionary top{{"HubProtocolVersion", 2}, {"Multiple", Dictionary{{"a", changed}, {"b", "sibling"}}}};
    EXPECT_EQ(multiplexed->plugInDictionary(), changed);
    EXPECT_EQ(multiplexed->topDictionary(), top);
    EXPECT_EQ(multiplexed->bundleInfoDictionary(), (Dictionary{{"KXExtension", top}}));
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
        {"/p/A.APPEX", sound.changing("PrincipalClass", "Mine"), nullptr},
        {kPath, sound.changing("KXExtensionProtocol", 1), kNoProtocol},
        {kPath, sound.changing("KXExtensionAttributes", {}),
         "missing \"KXExtensionAttributes\" key in Info.plist or SDK"},
        {kPath, sound.changing("PrincipalClass", {}), kOwnClass},
        {kPath, sound.changing("PrincipalClass", "Mine").changing("PassProxy", 1), kOwnClass},
        {kPath, sound.changing("PassProxy", false).changing("EmbeddedCode", 1),
         "the \"PassProxy\" key is not supported on this platform"},
        {kPath, sound.changing("EmbeddedCode", 0), "hybrid plug-ins are not supported on this platform"},
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
