#include "tests/support/Words.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/VTDatabase.h"

namespace {

TEST(Database, KeepsNoRecordOfAPlugInWhoseEndHasBeenAnnounced) {
    const support::PrivateRoot root;
    root.writeList("system/PlugIns/a/Info.plist",
                   Dictionary{{"QFBundleIdentifier", "a"}, {"KXExtension", Dictionary{{"KXExtensionProtocol", "P"}}}});
    const auto registry = *dravo::DVApplicationWorkspace::open();
    const auto database = *VTDatabase::initWithDatabase(root / "Annotations", registry);
    database->setCacheLimit(150);
    static_cast<void>(registry->unregisterPlugin("/"));  // behind its second look, which may make the record anew
    const auto proxy = registry->installedPlugins()->at(0);
    const auto kept = database->plugInForProxy(proxy);
    EXPECT_EQ(database->plugInForProxy(proxy), kept);
    EXPECT_TRUE(database->isCurrent(*kept));
    database->pluginsWillUninstall({proxy});
    // Still known to the registry for a moment: usable, but nobody would tell again that a kept record is stale.
    const auto departing = database->plugInForProxy(proxy);
    ASSERT_NE(departing, nullptr);
    EXPECT_NE(departing, kept);
    EXPECT_NE(database->plugInForProxy(proxy), departing);
    EXPECT_FALSE(database->isCurrent(*departing)) << "nothing is registered that nobody would withdraw";
}

}  // namespace
