#include "platform/bundle/Bundle.h"
#include "tests/support/Words.h"

namespace bundle {
namespace {

class BundleReader : public testing::Test {
protected:
    const support::TemporaryDirectory root_;
    support::LogLines log_;
};

TEST_F(BundleReader, TakesAnInfoFileThatIsNoneForNoBundle) {
    root_.writeList("outside", Dictionary{});
    fs::resize_file(root_.write("huge/Info.plist", ""), kInfoLimit + 1);
    for (const char* name : {"pipe", "link", "device"}) fs::create_directory(root_ / name);
    ASSERT_EQ(::mkfifo((root_ / "pipe/Info.plist").c_str(), 0600), 0);
    fs::create_symlink("../outside", root_ / "link/Info.plist");
    fs::create_symlink("/dev/zero", root_ / "device/Info.plist");
    for (const std::string& name : {"pipe"s, "link"s, "device"s, "huge"s, "absent"s, "outside"s, "a\0"s}) {
        const auto bundle = Bundle::open(root_ / name, PathKind::directory);
        EXPECT_FALSE(bundle->bundlePath() || bundle->executablePath() || bundle->infoDictionary()) << name;
    }
}

TEST_F(BundleReader, HasNoDictionaryWhenTheInfoFileIsBrokenAndSaysWhyOnce) {
    root_.write("broken/Info.plist", "<plist><dict></plist>");
    root_.write("array/Info.plist", "<plist><array/></plist>");
    for (const char* name : {"broken", "array"}) {
        const auto bundle = Bundle::open(root_ / name, PathKind::directory);
        EXPECT_EQ(bundle->bundlePath(), root_ / name);
        EXPECT_FALSE(bundle->infoDictionary() || bundle->executablePath()) << name;
    }
    EXPECT_THAT(log_.take(),
                ElementsAre(HasSubstr("broken/Info.plist: line 1"), HasSubstr("array/Info.plist: not a dictionary")));
}

TEST_F(BundleReader, KeepsWhatItReadUntilTheCacheIsFlushed) {
    const auto bundle = Bundle::open(root_ / "late//", PathKind::directory);
    EXPECT_FALSE(bundle->bundlePath());
    for (int n = 1; n <= 2; ++n) {
        root_.writeList("late/Info.plist", Dictionary{{"n", n}});
        EXPECT_EQ(bundle->infoDictionary(), (Dictionary{{"n", 1}}));
    }
    bundle->flushCache();
    EXPECT_EQ(bundle->infoDictionary(), (Dictionary{{"n", 2}}));
    EXPECT_EQ(bundle->bundlePath(), root_ / "late");
}

TEST_F(BundleReader, FindsTheBundleThatNamesThisVeryExecutable) {
    root_.writeList("A.app/Info.plist", Dictionary{{"QFBundleExecutable", "main"}});
    root_.writeList("A.app/PlugIns/P.bundle/Info.plist", Dictionary{{"QFBundleExecutable", "link"}});
    for (const char* program : {"main", "other", "1/2/3/4/5/6/file", "PlugIns/P.bundle/target"})
        root_.write("A.app/"s + program, "program");
    fs::create_symlink("A.app/main", root_ / "to-main");
    fs::create_symlink("target", root_ / "A.app/PlugIns/P.bundle/link");
    // Other names of the same file, five and six directories further down.
    for (const char* name : {"A.app/1/2/3/4/5/near", "A.app/1/2/3/4/5/6/far"})
        fs::create_hard_link(root_ / "A.app/main", root_ / name);
    for (const char* found : {"A.app/main", "to-main", "A.app/1/2/3/4/5/near"})
        EXPECT_EQ(Bundle::open(root_ / found, PathKind::executable)->bundlePath(), root_ / "A.app") << found;
    for (const char* other : {"A.app/1/2/3/4/5/6/far", "A.app/1/2/3/4/5/6/file", "A.app/other", "A.app/absent",
                              "A.app/PlugIns/P.bundle/target", "A.app/PlugIns/P.bundle/link", "A.app/PlugIns"})
        EXPECT_FALSE(Bundle::open(root_ / other, PathKind::executable)->bundlePath()) << other;
}

TEST_F(BundleReader, NamesAnExecutableInsideTheBundleOnly) {
    const auto named = [](Value name) { return executableInBundle("/b", {{"QFBundleExecutable", std::move(name)}}); };
    for (const char* plain : {"a.out", "..a"}) EXPECT_TRUE(named(plain)) << plain;
    for (const Value& other : Array{"", ".", "..", "../x", "x/y", "x\0y"s, 7})
        EXPECT_FALSE(named(other)) << description(other);
    EXPECT_EQ(executableInBundle("/", {{"QFBundleExecutable", "x"}}), "/x");
    EXPECT_FALSE(executableInBundle("/b", {}));
}

}  // namespace
}  // namespace bundle
