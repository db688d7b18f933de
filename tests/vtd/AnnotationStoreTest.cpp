#include <fstream>
#include <iterator>

#include "platform/file/File.h"
#include "tests/support/Words.h"
#include "vtd/VTDAnnotationStore.h"
#include "vtd/VTDPlugInSignature.h"

namespace {

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
    const Dictionary* const table =
        root && root->dictionary() != nullptr ? root->dictionary()->dictionary("data") : nullptr;
    return table != nullptr ? *table : Dictionary{{"unreadable", true}};
}

Dictionary elected(int election) {
    return {{"election", election}};
}

const Dictionary kSound{{"version", 16}, {"data", Dictionary{{"kept", elected(1)}}}};

class AnnotationStore : public testing::Test {
protected:
    const support::PrivateRoot root;
    const std::string path = root / "Annotations";
    support::LogLines log;
};

TEST_F(AnnotationStore, StartsFromWhateverTheFileHoldsAndDestroysNothing) {
    const std::string sound = *plist::writeXml(kSound);
    const auto list = [](const Value& value) { return *plist::writeXml(value); };
    const struct {
        std::string name, bytes;
        std::string logged;  // in the one line, none when empty
        bool loads;          // the record "kept"
        bool savesCopy;      // by the first save, since it would not write the file's content back
    } rows[] = {
        {"no file", "", "", false, false},
        {"sound", sound, "", true, false},
        {"older version", list(kSound.changing("version", 15)),
         "error:found database version 15 needed version 16 (resetting)", false, true},
        {"no version", list(kSound.changing("version", {})),
         "error:found database version 0 needed version 16 (resetting)", false, true},
        {"no dictionary", list(Array{}), "found database version 0 needed version 16", false, true},
        {"torn", sound.substr(0, 80), "(resetting)", false, true},
        {"no data", list(kSound.changing("data", {})), "", false, true},
        {"data of another kind", list(kSound.changing("data", "x")), "", false, true},
        {"a record of another kind", list(kSound.changing("data", Dictionary{{"odd", true}, {"kept", elected(1)}})),
         "ignoring what is no annotation", true, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string file = root / row.name;
        if (!row.bytes.empty()) root.write(row.name, row.bytes);
        const auto store = openStore(file);
        ASSERT_TRUE(store);
        const Texts lines = log.take();
        if (!row.logged.empty()) {
            EXPECT_THAT(lines, ElementsAre(AllOf(HasSubstr(file), HasSubstr(row.logged))));
        }
        EXPECT_EQ(store->annotationForIdentifier("kept").has_value(), row.loads);
        EXPECT_EQ(bytesOf(file), row.bytes) << "untouched until the first save";

        for (const char* key : {"new", "newer"}) store->setAnnotation(elected(0), key);
        const Dictionary saved{{"new", elected(0)}, {"newer", elected(0)}};
        EXPECT_EQ(storedTable(file), row.loads ? saved.changing("kept", elected(1)) : saved);
        EXPECT_EQ(bytesOf(file + ".unreadable-1"), row.savesCopy ? row.bytes : "");
        EXPECT_FALSE(fs::exists(file + ".unreadable-2"));
        EXPECT_EQ(log.take().size(), row.savesCopy ? 1U : 0U);
    }
}

TEST_F(AnnotationStore, MergesByNameRemovesAndKeepsWhatNoFileCanHoldToItself) {
    const auto store = openStore(path);
    const Dictionary extension{{"a", 1}};
    store->setAnnotation(Dictionary{{"election", 0}, {"extension", extension}}, "one");
    store->setAnnotation(elected(1), "one");
    store->setAnnotation(Dictionary{}, "two");
    const auto saved = file::stampOf(path);
    store->setAnnotation(elected(1), "one");
    EXPECT_EQ(file::stampOf(path), saved) << "what is there is not written again";
    root.write("Annotations", "spoilt by somebody");
    store->setAnnotation(elected(1), "one");
    EXPECT_EQ(storedTable(path),
              (Dictionary{{"one", elected(1).changing("extension", extension)}, {"two", Dictionary{}}}));
    store->setAnnotation(std::nullopt, "one");
    EXPECT_EQ(storedTable(path), (Dictionary{{"two", Dictionary{}}}));
    EXPECT_FALSE(store->annotationForIdentifier("one"));
    EXPECT_EQ(plist::readFile(path)->dictionary()->find("version")->integerValue(), 16);

    store->setAnnotation(elected(1).changing("extension", Dictionary{{"x", "\x01"}}), "hostile");
    EXPECT_THAT(log.take(), ElementsAre(HasSubstr("unable to save annotations:" + path + " error:")));
    store->setAnnotation(Dictionary{{"extension", Dictionary{{"x", value::Uuid{}}}}}, "two");
    store->setAnnotation(elected(1), "honest");
    EXPECT_EQ(storedTable(path), (Dictionary{{"hostile", elected(1)}, {"two", Dictionary{}}, {"honest", elected(1)}}));
    EXPECT_TRUE(store->annotationForIdentifier("hostile")->contains("extension"));
}

TEST_F(AnnotationStore, OneProcessUsesAFileByWhateverNameItGoes) {
    fs::create_symlink(root.writeList("Annotations", kSound), root / "alias");
    auto store = openStore(path);
    EXPECT_THAT(whyNot(VTDAnnotationStore::initWithDatabase(root / "alias")),
                HasSubstr("process " + std::to_string(::getpid()) + " holds the lock " + path));
    store.reset();
    EXPECT_TRUE(openStore(path));
}

TEST_F(AnnotationStore, AChangeThatCannotBeSavedStandsAndTheNextSaveWritesAll) {
    fs::create_directory(path);  // in the file's place
    for (const std::string& file : {path, root / "missing/file"}) {
        const auto store = openStore(file);
        ASSERT_TRUE(store);
        log.take();
        store->setAnnotation(elected(1), "one");
        EXPECT_THAT(log.take(), ElementsAre(HasSubstr("unable to save annotations:" + file + " error:")));
        EXPECT_TRUE(store->annotationForIdentifier("one"));
        fs::remove(path);
        fs::create_directory(root / "missing");
        store->setAnnotation(elected(-1), "two");
        EXPECT_THAT(log.take(), IsEmpty());
        EXPECT_EQ(storedTable(file), (Dictionary{{"one", elected(1)}, {"two", elected(-1)}}));
        fs::remove_all(root / "missing");
    }
}

TEST_F(AnnotationStore, LiesInAPrivateDirectoryOfTheStateDirectoryByDefault) {
    const std::string directory = root / "state/halvern.velto";
    EXPECT_EQ(VTDAnnotationStore::initWithDatabase(std::nullopt)->get()->annotationsURL(), directory + "/Annotations");
    EXPECT_EQ(fs::status(directory).permissions(), fs::perms::owner_all);

    paths::Directories here = paths::directories();
    here.state = root.write("occupied", "");
    paths::setDirectories(here);
    EXPECT_DEATH(VTDAnnotationStore::defaultDatabaseURL(), "unable to create plugin annotations directory:.*occupied");
    here.state = "/" + std::string(1100, 'x');
    paths::setDirectories(here);
    EXPECT_DEATH(VTDAnnotationStore::defaultDatabaseURL(), "unable to locate user directory: errno");
}

TEST(PlugInSignature, HoldsPlaceholdersThatAreUniqueByTheirHash) {
    const VTDPlugInSignature one{"/a"}, other{"/a"};
    EXPECT_EQ(one.cdhash().size(), 20U);
    EXPECT_NE(one.cdhash(), other.cdhash());
    EXPECT_EQ(one.requirement(), "dummy requirement");
}

}  // namespace
