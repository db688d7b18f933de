#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/file/File.h"
#include "platform/paths/Paths.h"
#include "platform/plist/Plist.h"
#include "tests/support/LogLines.h"
#include "tests/support/TemporaryDirectory.h"
#include "vtd/VTDAnnotationStore.h"
#include "vtd/VTDPlugInSignature.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using value::Dictionary;
using namespace std::string_view_literals;

std::shared_ptr<VTDAnnotationStore> openStore(const std::string& path) {
    auto store = VTDAnnotationStore::initWithDatabase(path);
    return store ? *store : nullptr;
}

std::string bytesOf(const std::string& path) {
    std::ifstream stream{path, std::ios::binary};
    return {std::istreambuf_iterator{stream}, {}};
}

// What a daemon that starts now would load.
Dictionary storedTable(const std::string& path) {
    const auto root = plist::readFile(path);
    if (!root || root->dictionary() == nullptr) return {{"unreadable", true}};
    const Dictionary* const table = root->dictionary()->dictionary("data");
    return table != nullptr ? *table : Dictionary{{"without", "data"}};
}

std::string stored(std::string_view version, std::string_view data) {
    return "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>" + std::string{version} + std::string{data} +
           "</dict></plist>";
}

constexpr std::string_view kVersion16 = "<key>version</key><integer>16</integer>";
constexpr std::string_view kKeptRecord =
    "<key>data</key><dict><key>kept</key><dict><key>election</key><integer>1</integer></dict></dict>";

// The binary encoding of {"version": 16, "data": {"kept": {"election": 1}}}.
constexpr std::string_view kBinary =
    "bplist00\xd2\x01\x02\x03\x04WversionTdata\x10\x10\xd1\x05\x06Tkept\xd1\x07\x08Xelection\x10\x01\x08\r\x15\x1a\x1c"
    "\x1f"
    "$'0\0\0\0\0\0\0\x01\x01\0\0\0\0\0\0\0\x09\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"
    "2"sv;

struct StartRow {
    std::string_view name;
    std::optional<std::string> bytes;
    std::string_view logged;  // in the one line, none when empty
    bool loads;               // the record "kept"
    bool savesCopy;           // by the first save, since it would not write the file's content back
};

TEST(AnnotationStore, StartsFromWhateverTheFileHoldsAndDestroysNothing) {
    const support::TemporaryDirectory directory;
    const StartRow rows[] = {
        {"no file", std::nullopt, "", false, false},
        {"sound", stored(kVersion16, kKeptRecord), "", true, false},
        {"binary", std::string{kBinary}, "", true, false},
        {"older version", stored("<key>version</key><integer>15</integer>", kKeptRecord),
         "error:found database version 15 needed version 16 (resetting)", false, true},
        {"no version", stored("", kKeptRecord), "error:found database version 0 needed version 16 (resetting)", false,
         true},
        {"no dictionary", "<plist><array/></plist>", "found database version 0 needed version 16", false, true},
        {"torn", stored(kVersion16, kKeptRecord).substr(0, 80), "(resetting)", false, true},
        {"empty", "", "(resetting)", false, true},
        {"no data", stored(kVersion16, ""), "", false, true},
        {"data of another kind", stored(kVersion16, "<key>data</key><string>x</string>"), "", false, true},
        {"a record of another kind",
         stored(kVersion16,
                "<key>data</key><dict><key>odd</key><true/><key>kept</key><dict><key>election</key>"
                "<integer>1</integer></dict></dict>"),
         "ignoring what is no annotation", true, true},
    };
    for (const StartRow& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string path = directory / row.name;
        if (row.bytes) directory.write(row.name, *row.bytes);

        support::LogLines log;
        const auto store = openStore(path);
        ASSERT_TRUE(store);
        if (!row.logged.empty()) {
            EXPECT_THAT(log.take(), ElementsAre(AllOf(HasSubstr(path), HasSubstr(std::string{row.logged}))));
        }
        EXPECT_EQ(store->annotationForIdentifier("kept").has_value(), row.loads);
        EXPECT_EQ(bytesOf(path), row.bytes.value_or("")) << "untouched until the first save";

        log.take();
        for (const char* key : {"new", "newer"}) store->setAnnotation(Dictionary{{"election", 0}}, key);
        Dictionary expected{{"new", Dictionary{{"election", 0}}}, {"newer", Dictionary{{"election", 0}}}};
        if (row.loads) expected = expected.changing("kept", Dictionary{{"election", 1}});
        EXPECT_EQ(storedTable(path), expected);

        const std::string copy = path + ".unreadable-1";
        EXPECT_EQ(std::filesystem::exists(copy), row.savesCopy);
        EXPECT_FALSE(std::filesystem::exists(path + ".unreadable-2"));
        if (row.savesCopy) {
            EXPECT_THAT(log.take(), ElementsAre(HasSubstr(copy)));
            EXPECT_EQ(bytesOf(copy), *row.bytes);
        }
    }
}

TEST(AnnotationStore, SettingMergesByNameAndSettingNothingRemoves) {
    const support::TemporaryDirectory directory;
    const std::string path = directory / "Annotations";
    const auto store = openStore(path);
    store->setAnnotation(Dictionary{{"election", 0}, {"extension", Dictionary{{"a", 1}}}}, "one");
    store->setAnnotation(Dictionary{{"election", 1}}, "one");
    store->setAnnotation(Dictionary{}, "two");
    const auto saved = file::stampOf(path);
    store->setAnnotation(Dictionary{{"election", 1}}, "one");
    EXPECT_EQ(file::stampOf(path), saved) << "what is there is not written again";
    directory.write("Annotations", "spoilt by somebody");
    store->setAnnotation(Dictionary{{"election", 1}}, "one");
    const Dictionary merged{{"election", 1}, {"extension", Dictionary{{"a", 1}}}};
    EXPECT_EQ(storedTable(path), (Dictionary{{"one", merged}, {"two", Dictionary{}}}));
    EXPECT_EQ(store->annotationForIdentifier("one"), merged);
    store->setAnnotation(std::nullopt, "one");
    EXPECT_EQ(storedTable(path), (Dictionary{{"two", Dictionary{}}}));
    EXPECT_FALSE(store->annotationForIdentifier("one"));
    EXPECT_EQ(plist::readFile(path)->dictionary()->find("version")->integerValue(), 16);
}

TEST(AnnotationStore, WhatNoPropertyListCanHoldKeepsNothingElseFromTheFile) {
    const support::TemporaryDirectory directory;
    const std::string path = directory / "Annotations";
    const auto store = openStore(path);
    support::LogLines log;
    store->setAnnotation(Dictionary{{"election", 1}, {"extension", Dictionary{{"x", "\x01"}}}}, "hostile");
    EXPECT_THAT(log.take(), ElementsAre(AllOf(HasSubstr("unable to save annotations:" + path + " error:"))));
    store->setAnnotation(Dictionary{{"extension", Dictionary{{"x", value::Uuid{}}}}}, "other");
    store->setAnnotation(Dictionary{{"election", 1}}, "honest");
    const Dictionary elected{{"election", 1}};
    EXPECT_EQ(storedTable(path), (Dictionary{{"hostile", elected}, {"other", Dictionary{}}, {"honest", elected}}));
    EXPECT_TRUE(store->annotationForIdentifier("hostile")->contains("extension"));
}

TEST(AnnotationStore, OneProcessUsesAFileByWhateverNameItGoes) {
    const support::TemporaryDirectory directory;
    const std::string path = directory.write("Annotations", stored(kVersion16, kKeptRecord));
    std::filesystem::create_symlink("Annotations", directory / "alias");
    auto store = openStore(path);
    for (const std::string& name : {path, directory / "alias"}) {
        const auto second = VTDAnnotationStore::initWithDatabase(name);
        ASSERT_FALSE(second) << name;
        EXPECT_THAT(second.error().localizedDescription(),
                    HasSubstr("process " + std::to_string(::getpid()) + " holds the lock " + path));
    }
    store.reset();
    EXPECT_TRUE(openStore(path));
}

TEST(AnnotationStore, AChangeThatCannotBeSavedStandsAndTheNextSaveWritesAll) {
    const support::TemporaryDirectory directory;
    const struct {
        std::string_view name;
        void (*obstruct)(const std::string& path);
        void (*clear)(const std::string& path);
    } rows[] = {
        {"directory in its place", [](const std::string& path) { std::filesystem::create_directory(path); },
         [](const std::string& path) { std::filesystem::remove(path); }},
        {"missing/directory", [](const std::string&) {},
         [](const std::string& path) { std::filesystem::create_directory(std::filesystem::path{path}.parent_path()); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string path = directory / row.name;
        row.obstruct(path);
        support::LogLines log;
        const auto store = openStore(path);
        ASSERT_TRUE(store);
        log.take();
        store->setAnnotation(Dictionary{{"election", 1}}, "one");
        EXPECT_THAT(log.take(), ElementsAre(HasSubstr("unable to save annotations:" + path + " error:")));
        EXPECT_TRUE(store->annotationForIdentifier("one"));
        row.clear(path);
        store->setAnnotation(Dictionary{{"election", -1}}, "two");
        EXPECT_THAT(log.take(), IsEmpty());
        EXPECT_EQ(storedTable(path),
                  (Dictionary{{"one", Dictionary{{"election", 1}}}, {"two", Dictionary{{"election", -1}}}}));
    }
}

TEST(AnnotationStore, LiesInAPrivateDirectoryOfTheStateDirectoryByDefault) {
    const support::TemporaryDirectory directory;
    paths::Directories here = paths::directories();
    const paths::Directories before = here;
    here.state = directory / "state";
    paths::setDirectories(here);
    EXPECT_EQ(VTDAnnotationStore::defaultDatabaseURL(), directory / "state/halvern.velto/Annotations");
    struct stat status {};
    ASSERT_EQ(::stat((directory / "state/halvern.velto").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700u);
    EXPECT_EQ(VTDAnnotationStore::initWithDatabase(std::nullopt)->get()->annotationsURL(),
              directory / "state/halvern.velto/Annotations");

    here.state = directory.write("occupied", "");
    paths::setDirectories(here);
    EXPECT_DEATH(VTDAnnotationStore::defaultDatabaseURL(), "unable to create plugin annotations directory:.*occupied");
    here.state = "/" + std::string(1100, 'x');
    paths::setDirectories(here);
    EXPECT_DEATH(VTDAnnotationStore::defaultDatabaseURL(), "unable to locate user directory: errno");
    paths::setDirectories(before);
}

TEST(PlugInSignature, HoldsPlaceholdersThatAreUniqueByTheirHash) {
    const VTDPlugInSignature one{"/a"};
    const VTDPlugInSignature other{"/a"};
    EXPECT_EQ(one.cdhash().size(), 20u);
    EXPECT_NE(one.cdhash(), other.cdhash());
    EXPECT_EQ(one.requirement(), "dummy requirement");
}

}  // namespace
