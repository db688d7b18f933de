#include <fcntl.h>

#include <cerrno>
#include <csignal>

#include "platform/file/UniqueFd.h"
#include "platform/sdk/SdkRegistry.h"
#include "tests/support/Words.h"

namespace sdk {
namespace {

class SdkRegistry : public testing::Test {
protected:
    void put(const std::string& name, const std::string& text) const { root.writeList(name, Dictionary{{"k", text}}); }

    static std::string textOf(const std::string& extensionPoint) {
        const Part found = part(extensionPoint);
        EXPECT_EQ(found.digest != 0, found.dictionary || found.fault);
        if (found.fault) return "unreadable";
        return found.dictionary ? *found.dictionary->string("k") : "none";
    }

    const support::PrivateRoot root;
    support::LogLines log;
};

TEST_F(SdkRegistry, FindsEntriesByPlainNamesOnly) {
    put("system/SDKs/halvern.share.plist", "share");
    put("system/SDKs/.hidden.plist", "hidden");
    put("system/above.plist", "above");
    EXPECT_EQ(textOf("halvern.share"), "share");
    for (const std::string& name : {""s, ".hidden"s, "../above"s, "../SDKs/halvern.share"s, "halvern.share.plist\0"s,
                                    "unknown"s, std::string(5000, 'x')}) {
        EXPECT_EQ(textOf(name), "none") << name;
    }
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(SdkRegistry, FollowsAFileAndComplainsOnceForEachMalformedChange) {
    for (const std::string content : {"1", "2"}) {
        put("system/SDKs/p.plist", content);
        EXPECT_EQ(textOf("p"), content);
    }
    {  // which its holder is to give up before anybody can read
        put("system/SDKs/p.plist", "3");
        ::signal(SIGIO, SIG_IGN);
        const file::UniqueFd held{::open((root / "system/SDKs/p.plist").c_str(), O_RDWR | O_CLOEXEC)};
        ASSERT_EQ(::fcntl(held.get(), F_SETLEASE, F_WRLCK), 0) << strerrorname_np(errno);
        EXPECT_EQ(textOf("p"), "2");
        EXPECT_TRUE(part("p").isStale);
    }
    EXPECT_EQ(textOf("p"), "3");
    for (const char* bad : {"no list", "<plist version=\"1.0\"><array/></plist>"}) {
        root.write("system/SDKs/p.plist", bad);
        for (int i = 0; i < 3; ++i) EXPECT_EQ(textOf("p"), "unreadable");
        EXPECT_THAT(log.take(), ElementsAre(HasSubstr("SDKs/p.plist"))) << bad;
    }
    fs::remove(root / "system/SDKs/p.plist");
    EXPECT_EQ(textOf("p"), "none");
    EXPECT_THAT(log.take(), IsEmpty());
}

}  // namespace
}  // namespace sdk
