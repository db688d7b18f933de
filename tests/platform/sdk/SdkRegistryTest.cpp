#include "platform/sdk/SdkRegistry.h"
#include "tests/support/Words.h"

namespace sdk {
namespace {

class SdkRegistry : public testing::Test {
protected:
    void put(const std::string& name, const std::string& text) const { root.writeList(name, Dictionary{{"k", text}}); }

    static std::string text(const std::optional<Dictionary>& entry) {
        return entry && entry->string("k") != nullptr ? *entry->string("k") : "none";
    }

    const support::PrivateRoot root;
    const std::string file = root / "system/SDKs/p.plist";
    support::LogLines log;
};

TEST_F(SdkRegistry, FindsEntriesByPlainNamesOnly) {
    put("system/SDKs/halvern.share.plist", "share");
    put("system/SDKs/.hidden.plist", "hidden");
    put("system/above.plist", "above");
    put("sdks/halvern.share", "elsewhere");
    EXPECT_EQ(text(entry("halvern.share")), "share");
    EXPECT_EQ(text(entryIn(root / "sdks", "halvern.share")), "elsewhere");
    for (const std::string& name : {""s, ".hidden"s, "../above"s, "../SDKs/halvern.share"s, "halvern.share.plist\0"s,
                                    "unknown"s, std::string(5000, 'x')}) {
        EXPECT_EQ(text(entry(name)), "none") << name;
        EXPECT_EQ(text(entryIn(root / "system", name)), "none") << name;
    }
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(SdkRegistry, ReadsAChangedFileAnewHoweverSoonItChanged) {
    for (int i = 0; i < 100; ++i) {
        put("system/SDKs/p.plist", std::to_string(i % 10));  // all of one size, many within one clock tick
        EXPECT_EQ(text(entry("p")), std::to_string(i % 10));
        EXPECT_EQ(text(entry("p")), std::to_string(i % 10));
    }
    fs::remove(file);
    EXPECT_EQ(text(entry("p")), "none");
}

TEST_F(SdkRegistry, ComplainsOnceForEachChangeOfAMalformedFile) {
    for (const char* bad : {"no list", "<plist version=\"1.0\"><array/></plist>"}) {
        root.write("system/SDKs/p.plist", bad);
        for (int i = 0; i < 3; ++i) EXPECT_EQ(text(entry("p")), "none");
        EXPECT_THAT(log.take(), ElementsAre(HasSubstr("SDKs/p.plist"))) << bad;
    }
    ASSERT_TRUE(fs::remove(file));
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    EXPECT_EQ(text(entry("p")), "none");
    EXPECT_THAT(log.take(), SizeIs(1));
    put("system/SDKs/q.plist", "good");
    EXPECT_EQ(text(entry("q")), "good");
    EXPECT_THAT(log.take(), IsEmpty());
}

}  // namespace
}  // namespace sdk
