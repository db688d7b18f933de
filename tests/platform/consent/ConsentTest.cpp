#include <sys/stat.h>

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/consent/Consent.h"
#include "platform/paths/Paths.h"
#include "tests/support/LogLines.h"
#include "tests/support/TemporaryDirectory.h"

namespace consent {
namespace {

class ConsentTest : public testing::Test {
protected:
    ConsentTest() {
        std::filesystem::remove_all(root / "state");
        paths::setDirectories({root / "run", root / "state", root / "config", root / "user", root / "system", true});
        root.write("a.app/Info.plist", "<plist><dict><key>QFBundleIdentifier</key><string>a</string></dict></plist>");
        root.write("nameless.app/Info.plist", "<plist><dict/></plist>");
    }

    // The granted services, or "failed".
    std::string granted(const char* bundle = "a.app") const {
        const auto entries = informationForBundle(*bundle::Bundle::open(root / bundle, bundle::PathKind::directory));
        if (!entries) return "failed";
        std::string text;
        for (const Entry& entry : *entries) text += entry.service + (entry.granted ? "+" : "-");
        return text;
    }

    void write(const std::string& content) const {
        root.write("state/consent.plist", "<plist><dict>" + content + "</dict></plist>");
    }

    static inline const support::TemporaryDirectory root;  // one, as the process's database is
};

TEST_F(ConsentTest, GrantsWhatTheFileSaysAndNothingByMistake) {
    const std::string one = "<dict><key>service</key><string>S</string><key>granted</key>";
    const struct {
        const char* name;
        std::string content, granted;
    } rows[] = {
        {"nobody", "", ""},
        {"another bundle", "<key>b</key><array>" + one + "<true/></dict></array>", ""},
        {"granted", "<key>a</key><array>" + one + "<true/></dict></array>", "S+"},
        {"refused", "<key>a</key><array>" + one + "<false/></dict></array>", "S-"},
        {"a number", "<key>a</key><array>" + one + "<integer>1</integer></dict></array>", "S-"},
        {"a text", "<key>a</key><array>" + one + "<string>true</string></dict></array>", "S-"},
        {"not said", "<key>a</key><array><dict><key>service</key><string>S</string></dict></array>", "S-"},
        {"no service", "<key>a</key><array><dict/><true/></array>", ""},
        {"no list", "<key>a</key>" + one + "<true/></dict>", "failed"},
    };
    EXPECT_EQ(granted(), "") << "no file";
    for (const auto& row : rows) {
        write(row.content);
        EXPECT_EQ(granted(), row.granted) << row.name;
    }
    EXPECT_EQ(granted("nameless.app"), "failed");
}

TEST_F(ConsentTest, FailsForAFileThatIsNoneAndSaysWhyOnceForEachChange) {
    const std::string path = root / "state/consent.plist";
    support::LogLines log;
    const auto said = [&] { return log.take(logging::Level::error).size(); };
    for (const char* content : {"<plist><array/></plist>", "torn"}) {
        root.write("state/consent.plist", content);
        EXPECT_EQ(granted() + granted(), "failedfailed");
        EXPECT_EQ(said(), 1U);
    }
    std::filesystem::remove(path);
    EXPECT_EQ(granted(), "");
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(granted(), "failed");
}

}  // namespace
}  // namespace consent
