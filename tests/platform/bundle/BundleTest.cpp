#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/bundle/Bundle.h"
#include "platform/file/File.h"
#include "platform/logging/Log.h"
#include "platform/plist/Plist.h"
#include "tests/support/TemporaryDirectory.h"

namespace bundle {
namespace {

using value::Dictionary;

class BundleReader : public testing::Test {
protected:
    BundleReader() {
        logging::setSink([this](logging::Level, std::string_view line) { log_.emplace_back(line); });
    }
    ~BundleReader() override { logging::setSink({}); }

    // The directory of a bundle with that dictionary, and its path as the kernel has it.
    std::string make(const std::string& name, const Dictionary& info) {
        root_.write(name + "/Info.plist", *plist::writeXml(info));
        return *file::canonicalPath(root_ / name);
    }

    const support::TemporaryDirectory root_;
    std::vector<std::string> log_;
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
    root_.write("outside", *plist::writeXml(Dictionary{}));
    root_.write("directory/Info.plist/x", "");
    root_.write("huge/Info.plist", "");
    ASSERT_EQ(::truncate((root_ / "huge/Info.plist").c_str(), kInfoLimit + 1), 0);
    for (const char* name : {"pipe", "link", "device", "none"}) std::filesystem::create_directory(root_ / name);
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
    EXPECT_THAT(log_, testing::ElementsAre(testing::HasSubstr("broken/Info.plist: line 1"),
                                           testing::HasSubstr("array/Info.plist: not a dictionary")));
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
    const struct {
        const char* executable;
        bool found;
    } rows[] = {
        {"A.app/main", true},
        {"to-main", true},
        {"A.app/1/2/3/4/5/near", true},  // another name of the same file, five directories further down
        {"A.app/1/2/3/4/5/6/far", false},
        {"A.app/1/2/3/4/5/6/file", false},
        {"A.app/other", false},
        {"A.app/PlugIns/P.bundle/target", false},
        {"A.app/PlugIns/P.bundle/link", false},
        {"A.app/PlugIns", false},
        {"A.app/absent", false},
    };
    for (const auto& row : rows) {
        const auto bundle = Bundle::open(root_ / row.executable, PathKind::executable);
        EXPECT_EQ(bundle->bundlePath(), row.found ? std::optional{app} : std::nullopt) << row.executable;
    }
    EXPECT_FALSE(Bundle::openMain()->bundlePath()) << "no bundle names a test program";
}

TEST_F(BundleReader, NamesAnExecutableInsideTheBundleOnly) {
    const struct {
        value::Value name;
        bool plain;
    } rows[] = {{"a.out", true}, {"..a", true},   {"", false},    {".", false},
                {"..", false},   {"../x", false}, {"x/y", false}, {std::string{"x\0y", 3}, false},
                {7, false}};
    for (const auto& row : rows) {
        EXPECT_EQ(executableInBundle("/b", {{"QFBundleExecutable", row.name}}).has_value(), row.plain)
            << description(row.name);
    }
    EXPECT_EQ(executableInBundle("/", {{"QFBundleExecutable", "x"}}), "/x");
    EXPECT_FALSE(executableInBundle("/b", {}));
}

}  // namespace
}  // namespace bundle
