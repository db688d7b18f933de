#include "tests/support/Words.h"
#include "tests/vtd/FakeRegistry.h"
#include "vtd/VTDPlugIn.h"

namespace {

class PlugInRecord : public testing::Test {
protected:
    // A bundle on disk, without an Info.plist when there is nothing to be in it, and what the registry says of it.
    std::shared_ptr<fake::PlugIn> install(const std::string& bundle, const std::optional<Dictionary>& info) {
        fs::create_directories(root / bundle);
        if (info) root.writeList(bundle + "/Info.plist", *info);
        return std::make_shared<fake::PlugIn>("org.example.one", root / bundle);
    }

    static Dictionary extension(Dictionary plugIn) { return {{"KXExtension", std::move(plugIn)}}; }

    const Dictionary plain = extension({{"KXExtensionProtocol", "P"}});
    const support::TemporaryDirectory root;
    support::LogLines log;
};

TEST_F(PlugInRecord, IsBuiltOrDropsOutWithALine) {
    const Dictionary entry{{"KXExtensionProtocol", "P"}};
    const struct {
        const char* bundle;
        std::optional<Dictionary> info;
        fake::Text dataContainer;
        std::string line;  // part of what is logged; empty: a record
    } rows[] = {
        {"plain.plugin", plain, "/data", ""},
        {"defaults.appex", extension({}), "/data", ""},
        {"empty.plugin", {}, "/data", "malformed plug-in dictionary in plug-in org.example.one"},
        {"no-protocol.plugin", extension({}), "/data", "ignoring mis-configured plug-in at"},
        {"one-of-several.plugin", extension({{"Multiple", Dictionary{{"org.example.one", entry}}}}), "/data", ""},
        {"none-of-several.plugin", extension({{"Multiple", Dictionary{{"org.example.two", entry}}}}), "/data",
         "malformed"},
        {"digits.appex", plain.changing("QFBundleShortVersionString", std::string(4000, '9')), "/data", ""},
        {"data.plugin", extension({{"KXExtensionProtocol", "#Data"}}), {}, ""},
        {"no-container.plugin", plain, {}, "this plug-in has no sandbox data container"},
        {"caf\xE9.plugin", plain, "/data", "its path is not UTF-8"},
    };
    for (const auto& row : rows) {
        const auto proxy = install(row.bundle, row.info);
        proxy->dataContainer = row.dataContainer;
        EXPECT_EQ(VTDPlugIn::initWithDVData(proxy) != nullptr, row.line.empty()) << row.bundle;
        const Texts lines = log.take();
        EXPECT_EQ(lines.size(), row.line.empty() ? 0U : 1U) << row.bundle;
        EXPECT_THAT(lines, testing::Each(HasSubstr(row.line)));
    }
}

TEST_F(PlugInRecord, TakesFromTheRegistryWhatOnlyItKnows) {
    const auto proxy = install("1.appex", extension({}).changing("DTBuild", "x").changing("Dt", 2));
    proxy->registered = value::Date{-1.9};
    proxy->container = dravo::DVBundleProxy{std::make_shared<fake::Application>(), "/a.app"};
    const auto plugIn = VTDPlugIn::initWithDVData(proxy);
    ASSERT_NE(plugIn, nullptr);
    EXPECT_EQ(plugIn->uuid(), proxy->uuid);
    EXPECT_EQ(plugIn->originalIdentifier(), "org.example.original");
    EXPECT_EQ(plugIn->lastModified(), -1);
    EXPECT_EQ(plugIn->containingPath(), "/a.app");
    EXPECT_EQ(plugIn->localizedContainingName(), "The Application");
    EXPECT_FALSE(plugIn->bundleInfoDictionary().contains("DTBuild"));
    EXPECT_TRUE(plugIn->bundleInfoDictionary().contains("Dt"));

    EXPECT_EQ(plugIn->localizedName(), "");
    for (const char* name : {"first", "second"}) {
        proxy->name = name;
        EXPECT_EQ(plugIn->localizedName(), "first");
    }
}

TEST_F(PlugInRecord, ProtocolGenerationIsDeclaredOrGuessedFromTheStyle) {
    const struct {
        Value declared;
        bool oldStyle;
        std::uint32_t generation;
    } rows[] = {{3, true, 3}, {"4", false, 4}, {Array{}, true, 1}, {Array{}, false, 2}, {0, false, 0}};
    for (const auto& row : rows) {
        const Dictionary info = extension({{"KXExtensionProtocol", "P"}, {"HubProtocolVersion", row.declared}});
        const auto proxy = install("1.plugin", row.oldStyle ? info.changing("Velto", 1) : info);
        EXPECT_EQ(VTDPlugIn::initWithDVData(proxy)->hubProtocolVersion(), row.generation);
    }
}

TEST_F(PlugInRecord, EntitlementsCountUnlessFalseAndNameTheAnnotationKey) {
    const auto proxy = install("1.appex", extension({}));
    const auto plugIn = VTDPlugIn::initWithDVData(proxy);
    proxy->held = {{"no", false}, {"zero", 0}, {"text", "0"}, {"list", Array{}}};
    for (const char* held : {"text", "list"}) EXPECT_TRUE(plugIn->hasEntitlement(held)) << held;
    for (const char* lacked : {"no", "zero", "absent"}) EXPECT_FALSE(plugIn->hasEntitlement(lacked)) << lacked;

    proxy->held = {{kReplacePlugInEntitlement, Array{"org.example.two"}}};
    EXPECT_EQ(plugIn->annotationKey(), "org.example.one");
    proxy->held = {{kReplacePlugInEntitlement, "org.example.two"}};
    EXPECT_EQ(plugIn->annotationKey(), "org.example.two");
}

TEST_F(PlugInRecord, SharedResourcesNeverLeadOutOfTheBundle) {
    root.write("1.plugin/Inside/file", "x");
    root.write("1.plugin2/file", "x");
    fs::create_directory_symlink("../1.plugin2", root / "1.plugin/Out");
    fs::create_directory_symlink("Inside", root / "1.plugin/In");
    const struct {
        const char* name;
        Value shared;
        std::optional<std::string> issued;  // nothing: no "extensions" at all
    } rows[] = {
        {"nothing of the kind", 7, {}},
        {"the bundle", ".", " ."},
        {"names among others", Array{7, "Inside/file", "missing", "In"}, " In Inside/file"},
        {"upwards", Array{"..", "../1.plugin2", "Inside/../../1.plugin2", "Inside/.."}, " Inside/.."},
        {"by a link", Array{"Out", "Out/file"}, ""},
        {"absolute", root / "1.plugin2", ""},
        {"an endless path", std::string(100'000, 'x'), ""},
    };
    std::shared_ptr<VTDPlugIn> plugIn;
    for (const auto& row : rows) {
        const Dictionary shares{{"KXExtensionProtocol", "P"}, {"Shared", row.shared}};
        plugIn = VTDPlugIn::initWithDVData(install("1.plugin", extension(shares)));
        VTForm form = *plugIn->exportForm();
        plugIn->augmentForm(form);
        const Dictionary entries = form.dictionary();
        std::optional<std::string> issued;
        if (const Dictionary* extensions = entries.dictionary(VTFormKey::extensions)) {
            issued = "";
            for (const auto& extension : *extensions) *issued += " " + extension.key;
        }
        EXPECT_EQ(issued, row.issued) << row.name;
    }
    EXPECT_TRUE(plugIn->issueResourceExtensions(std::string{"Inside\0x", 8}).empty());
    log.take();
    EXPECT_TRUE(plugIn->issueResourceExtensions("none").empty());
    EXPECT_THAT(log.take(), ElementsAre("failed to make extension for " + (root / "1.plugin/none") + " in plug-in at " +
                                        (root / "1.plugin") + ": No such file or directory"));

    // What was sound once and was exchanged since is refused like any other.
    fs::remove(root / "1.plugin/In");
    fs::create_directory_symlink("../1.plugin2", root / "1.plugin/In");
    EXPECT_TRUE(plugIn->issueResourceExtensions("In").empty());
}

}  // namespace
