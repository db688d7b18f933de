#include "platform/bundle/Bundle.h"
#include "tests/support/Words.h"

namespace bundle {
namespace {

class BundleReader : public testing::Test {
protected:
    // The directory of a bundle with that dictionary.
    std::string make(const std::string& name, const Dictionary& info) {
        root_.writeList(name + "/Info.plist", info);
        return root_ / name;
    }

    const support::TemporaryDirectory root_;
    support::LogLines log_;
};

TEST_F(BundleReader, KnowsABundleByItsInfoFile) {
    const std::string path = make("A.app", {{"QFBundleIdentifier", "org.example.a"}, {"QFBundleExecutable", "a"}});
    const auto bundle = Bundle::open(path + "//", PathKind::directory);
    EXPECT_EQ(bundle->bundlePath(), path);
    EXPECT_EQ(bundle->supportPath(), path);
    EXPECT_EQ(bundle->executablePath(), path + "/a");
    EXPECT_EQ(*bundle->infoDictionary()->string("QFBundleIdentifier"), "org.example.a");
}

TEST_F(BundleReader, TakesAnInfoFileThatIsNoneForNoBundle) {
    root_.writeList("outside", Dictionary{});
    root_.write("directory/Info.plist/x", "");
    root_.write("huge/Info.plist", "");
    ASSERT_EQ(::truncate((root_ / "huge/Info.plist").c_str(), kInfoLimit + 1), 0);
    for (const char* name : {"pipe", "link", "device", "none"}) fs::create_directory(root_ / name);
    ASSERT_EQ(::mkfifo((root_ / "pipe/Info.plist").c_str(), 0600), 0);
    ASSERT_EQ(::symlink("../outside", (root_ / "link/Info.plist").c_str()), 0);
    ASSERT_EQ(::symlink("/dev/zero", (root_ / "device/Info.plist").c_str()), 0);
    for (const char* name : {"pipe", "link", "device", "none", "huge", "directory", "absent", "outside"}) {
        const auto bundle = Bundle::open(root_ / name, PathKind::directory);
        EXPECT_FALSE(bundle->bundlePath() || bundle->supportPath() || bundle->executablePath()) << name;
        EXPECT_FALSE(bundle->infoDictionary()) << name;
    }
    EXPECT_FALSE(Bundle::open(root_ / std::string_view{"a\0", 2}, PathKind::directory)->bundlePath());
}

TEST_F(BundleReader, HasNoDictionaryWhenTheInfoFileIsBrokenAndSaysWhyOnce) {
    root_.write("broken/Info.plist", "<plist><dict></plist>");
    root_.write("array/Info.plist", "<plist><array/></plist>");
    for (const char* name : {"broken", "array"}) {
        const auto bundle = Bundle::open(root_ / name, PathKind::directory);
        EXPECT_EQ(bundle->bundlePath(), root_ / name);
        EXPECT_FALSE(bundle->infoDictionary()) << name;
        EXPECT_FALSE(bundle->executablePath()) << name;
    }
    EXPECT_THAT(log_.take(),
                ElementsAre(HasSubstr("broken/Info.plist: line 1"), HasSubstr("array/Info.plist: not a dictionary")));
}

TEST_F(BundleReader, KeepsWhatItReadUntilTheCacheIsFlushed) {
    const std::string path = root_ / "late";
    const auto bundle = Bundle::open(path, PathKind::directory);
    EXPECT_FALSE(bundle->bundlePath());
    make("late", {{"n", 1}});
    EXPECT_EQ(bundle->infoDictionary(), (Dictionary{{"n", 1}}));
    make("late", {{"n", 2}});
    EXPECT_EQ(bundle->infoDictionary(), (Dictionary{{"n", 1}}));
    bundle->flushCache();
    EXPECT_EQ(bundle->infoDictionary(), (Dictionary{{"n", 2}}));
}

TEST_F(BundleReader, FindsTheBundleThatNamesThisVeryExecutable) {
    const std::string app = make("A.app", {{"QFBundleExecutable", "main"}});
    const std::string plugIn = make("A.app/PlugIns/P.bundle", {{"QFBundleExecutable", "link"}});
    root_.write("A.app/main", "program");
    root_.write("A.app/other", "program");
    root_.write("A.app/1/2/3/4/5/6/file", "");
    ASSERT_EQ(::symlink("A.app/main", (root_ / "to-main").c_str()), 0);
    ASSERT_EQ(::symlink("target", (plugIn + "/link").c_str()), 0);
    root_.write("A.app/PlugIns/P.bundle/target", "program");
    ASSERT_EQ(::link((app + "/main").c_str(), (app + "/1/2/3/4/5/near").c_str()), 0);
    ASSERT_EQ(::link((app + "/main").c_str(), (app + "/1/2/3/4/5/6/far").c_str()), 0);
    // "near" is another name of the same file, five directories further down.
    for (const char* found : {"A.app/main", "to-main", "A.app/1/2/3/4/5/near"})
        EXPECT_EQ(Bundle::open(root_ / found, PathKind::executable)->bundlePath(), app) << found;
    for (const char* other : {"A.app/1/2/3/4/5/6/far", "A.app/1/2/3/4/5/6/file", "A.app/other", "A.app/absent",
                              "A.app/PlugIns/P.bundle/target", "A.app/PlugIns/P.bundle/link", "A.app/PlugIns"})
        EXPECT_FALSE(Bundle::open(root_ / other, PathKind::executable)->bundlePath()) << other;
    EXPECT_FALSE(Bundle::openMain()->bundlePath()) << "no bundle names a test program";
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
