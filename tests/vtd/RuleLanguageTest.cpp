#include "tests/support/Words.h"
#include "tests/vtd/FakeRegistry.h"
#include "vtd/VTDPlugIn.h"

namespace {

struct Elections : VTDAnnotationSource {
    std::optional<Dictionary> annotationForPlugIn(const VTDPlugIn&) override { return annotation; }
    std::optional<Dictionary> annotation;
};

class RuleLanguage : public testing::Test {
protected:
    RuleLanguage() {
        proxy->held = {{"org.example.right", "given"}, {"org.example.denied", false}, {"org.example.zero", 0}};
        plugIn->setDvproxy(proxy);
        plugIn->setAnnotationSource(elections);
        const Dictionary attributes{{"Version", "2.10"}, {"Count", 1},
                                    {"Off", false},      {"Zero", "0"},
                                    {"Empty", Array{}},  {"Both", "attribute"},
                                    {"Takes", true},     {"Types", Array{3, "org.example.text", "org.example.image"}}};
        const Dictionary info{
            {"Both", "info"}, {"InfoOnly", "here"}, {"KXExtension", Dictionary{{"KXExtensionAttributes", attributes}}}};
        EXPECT_TRUE(plugIn->setupWithName("org.example.viewer", "/a/viewer.appex", info, std::nullopt,
                                          value::Uuid::parse("0123ABCD-0000-4000-8000-00000000000f")));
    }

    const std::shared_ptr<fake::PlugIn> proxy = std::make_shared<fake::PlugIn>("org.example.viewer", "/a/viewer.appex");
    const std::shared_ptr<VTDPlugIn> plugIn = std::make_shared<VTDPlugIn>();
    const std::shared_ptr<Elections> elections = std::make_shared<Elections>();
};

TEST_F(RuleLanguage, AttributeMetWithPattern) {
    const struct {
        const char* name;
        const char* attribute;
        Value pattern;
        bool matches;
    } rows[] = {
        {"identifier, plain", "KXExtensionIdentifier", "org.example.viewer", true},
        {"identifier, one of several", "KXExtensionIdentifier", Array{"a", "org.example.viewer"}, true},
        {"identifier, none of several", "KXExtensionIdentifier", Array{"a", 1, "org.example"}, false},
        {"uuid is canonical text", "halvern.uuid", "0123ABCD-0000-4000-8000-00000000000F", true},
        {"no election is 0", "KXUserElection", "0", true},
        {"no containing application, false", "KXExtensionContainingApp", false, false},
        {"numeric comparison", "Version", ">=2.9", true},
        {"not ascending", "Version", "<2.9", false},
        {"same, with operator", "Version", "=2.10", true},
        {"descending", "Version", ">2.9", true},
        {"the operand keeps its blanks", "Version", "= 2.10", false},
        {"only the first operator counts", "Version", "==2.10", false},
        {"pattern list, later element", "Version", Array{"<2", ">2"}, true},
        {"present", "Version", true, true},
        {"present is not absent", "Version", false, false},
        {"the text 0 is present", "Zero", true, true},
        {"false is false", "Off", 0, true},
        {"absent", "Nowhere", false, true},
        {"absent matches no text", "Nowhere", "<>x", false},
        {"a number matches no text", "Count", "=1", false},
        {"any element of a list", "Types", "org.example.image", true},
        {"no element of a list", "Types", "org.example.sound", false},
        {"info comes second", "InfoOnly", "here", true},
        {"entitlement", "ENTITLEMENT:org.example.right", "given", true},
        {"entitlement denied", "ENTITLEMENT:org.example.denied", true, false},
        {"entitlement 0", "ENTITLEMENT:org.example.zero", false, true},
        {"entitlements are not attributes", "ENTITLEMENT:Version", true, false},
        {"a type conforms to itself", "Types", "?ZT-CONFORMS:org.example.image", true},
        {"a type conforms to no stranger", "Types", "?ZT-CONFORMS:org.example.sound", false},
        {"an activation rule", "Takes", Dictionary{{"items", Array{Dictionary{{"types", Array{"x"}}}}}}, true},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(plugIn->matchKey(row.attribute, row.pattern), row.matches) << row.name;
        EXPECT_EQ(plugIn->match(Dictionary{{row.attribute, row.pattern}}), row.matches) << row.name;
    }
}

TEST_F(RuleLanguage, ElectionIsReadWithoutItsSecondByte) {
    const struct {
        Value stored;
        const char* text;
    } rows[] = {{0x101, "1"}, {-1, "-65281"}, {0x10002, "65538"}, {"3", "3"}, {Array{}, "0"}, {0x100000005, "5"}};
    for (const auto& row : rows) {
        elections->annotation = Dictionary{{"election", row.stored}};
        EXPECT_TRUE(plugIn->matchKey("KXUserElection", Value{std::string{"="} + row.text})) << row.text;
    }
}

TEST_F(RuleLanguage, EveryRuleMustMatchAndTheFirstThatDoesNotIsNamed) {
    EXPECT_TRUE(plugIn->match(std::nullopt));
    EXPECT_TRUE(plugIn->match(Dictionary{}));
    EXPECT_TRUE(plugIn->match(Dictionary{{"Version", "2.10"}, {"Zero", "0"}}));
    const Dictionary rules{{"A", false}, {"B", "x"}, {"C", "?unheard-of:x"}};
    EXPECT_EQ(plugIn->unmatchedRule(rules)->key, "B");
    plugIn->setContainingUrl("/a");
    EXPECT_TRUE(plugIn->match(Dictionary{{"KXExtensionContainingApp", "/a"}}));
}

TEST_F(RuleLanguage, UnknownOperatorIsLoggedOncePerEvaluation) {
    support::LogLines log;
    EXPECT_FALSE(plugIn->matchKey("Version", "?zt-is:x"));
    EXPECT_FALSE(plugIn->matchKey("Types", "?"));  // of three elements two are texts
    const std::string line = "unrecognized match operator:?";
    EXPECT_EQ(log.take(), (Texts{line + "zt-is:x", line, line}));
}

}  // namespace
