#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/logging/Log.h"
#include "platform/paths/Paths.h"
#include "platform/sdk/SdkRegistry.h"
#include "tests/support/TemporaryDirectory.h"

namespace sdk {
namespace {

std::string list(const std::string& text) {
    return "<plist version=\"1.0\"><dict><key>k</key><string>" + text + "</string></dict></plist>";
}

class SdkRegistry : public testing::Test {
protected:
    SdkRegistry() {
        paths::Directories directories;
        directories.systemVolume = root.path();
        paths::setDirectories(directories);
        logging::setSink([this](logging::Level, std::string_view line) { lines.emplace_back(line); });
    }
    ~SdkRegistry() override { logging::setSink({}); }

    static std::string text(const std::optional<value::Dictionary>& entry) {
        return entry && entry->string("k") != nullptr ? *entry->string("k") : "none";
    }

    const support::TemporaryDirectory root;
    std::vector<std::string> lines;
};

TEST_F(SdkRegistry, FindsEntriesByPlainNamesOnly) {
    root.write("SDKs/halvern.share.plist", list("share"));
    root.write("SDKs/.hidden.plist", list("hidden"));
    root.write("above.plist", list("above"));
    root.write("sdks/halvern.share", list("elsewhere"));
    EXPECT_EQ(text(entry("halvern.share")), "share");
    EXPECT_EQ(text(entryIn(root / "sdks", "halvern.share")), "elsewhere");
    for (const std::string& name :
         {std::string{}, std::string{".hidden"}, std::string{"../above"}, std::string{"../SDKs/halvern.share"},
          std::string{"halvern.share.plist\0", 20}, std::string{"unknown"}, std::string(5000, 'x')}) {
        EXPECT_EQ(text(entry(name)), "none") << name;
        EXPECT_EQ(text(entryIn(root.path(), name)), "none") << name;
    }
    EXPECT_TRUE(lines.empty());
}

TEST_F(SdkRegistry, ReadsAChangedFileAnewHoweverSoonItChanged) {
    for (int i = 0; i < 100; ++i) {
        root.write("SDKs/p.plist", list(std::to_string(i % 10)));  // all of one size, many within one clock tick
        EXPECT_EQ(text(entry("p")), std::to_string(i % 10));
        EXPECT_EQ(text(entry("p")), std::to_string(i % 10));
    }
    std::filesystem::remove(root / "SDKs/p.plist");
    EXPECT_EQ(text(entry("p")), "none");
}

TEST_F(SdkRegistry, ComplainsOnceForEachChangeOfAMalformedFile) {
    for (const std::string& bad : {std::string{"no list"}, std::string{"<plist version=\"1.0\"><array/></plist>"}}) {
        lines.clear();
        root.write("SDKs/p.plist", bad);
        for (int i = 0; i < 3; ++i) EXPECT_EQ(text(entry("p")), "none");
        ASSERT_EQ(lines.size(), 1U) << bad;
        EXPECT_NE(lines.front().find("SDKs/p.plist"), std::string::npos);
    }
    ASSERT_TRUE(std::filesystem::remove(root / "SDKs/p.plist"));
    ASSERT_EQ(mkfifo((root / "SDKs/p.plist").c_str(), 0600), 0);
    EXPECT_EQ(text(entry("p")), "none");
    EXPECT_EQ(lines.size(), 2U);
    root.write("SDKs/q.plist", list("good"));
    EXPECT_EQ(text(entry("q")), "good");
    EXPECT_EQ(lines.size(), 2U);
}

}  // namespace
}  // namespace sdk
