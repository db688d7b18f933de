#include "platform/bundle/Bundle.h"
#include "platform/consent/Consent.h"
#include "tests/support/Words.h"

namespace consent {
namespace {

TEST(Consent, GrantsWhatTheFileSaysAndNothingByMistake) {
    static const support::PrivateRoot root;  // one, as the process's database is
    support::LogLines log;
    root.writeList("a.app/Info.plist", Dictionary{{"QFBundleIdentifier", "a"}});
    root.writeList("nameless.app/Info.plist", Dictionary{});
    // The services, each with whether it is granted, or "failed".
    const auto granted = [](const char* bundle) {
        const auto entries = informationForBundle(*bundle::Bundle::open(root / bundle, bundle::PathKind::directory));
        if (!entries) return "failed"s;
        std::string text;
        for (const Entry& entry : *entries) text += entry.service + (entry.granted ? "+" : "-");
        return text;
    };
    const auto with = [](const Value& answer) {
        return Dictionary{{"a", Array{Dictionary{{"service", "S"}, {"granted", answer}}}}};
    };
    const struct {
        const char* name;
        Value content;
        std::string granted;
        std::size_t complaints = 0;
    } rows[] = {
        {"another bundle", Dictionary{{"b", *with(true).find("a")}}, ""},
        {"granted", with(true), "S+"},
        {"refused", with(false), "S-"},
        {"a number", with(1), "S-"},
        {"a text", with("true"), "S-"},
        {"not said", Dictionary{{"a", Array{Dictionary{{"service", "S"}}}}}, "S-"},
        {"no service", Dictionary{{"a", Array{Dictionary{}, true}}}, ""},
        {"no list", Dictionary{{"a", Dictionary{{"service", "S"}, {"granted", true}}}}, "failed"},
        {"no dictionary", Array{}, "failed", 1},
    };
    for (const auto& row : rows) {
        root.writeList("state/consent.plist", row.content);
        for (int i = 0; i < 2; ++i) EXPECT_EQ(granted("a.app"), row.granted) << row.name;
        EXPECT_THAT(log.take(), SizeIs(row.complaints)) << row.name;
    }
    EXPECT_EQ(granted("nameless.app"), "failed");
    root.write("state/consent.plist", "torn");
    EXPECT_EQ(granted("a.app"), "failed");
    fs::remove(root / "state/consent.plist");
    EXPECT_EQ(granted("a.app"), "") << "no file";
}

}  // namespace
}  // namespace consent
