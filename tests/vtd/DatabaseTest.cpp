#include "Velto/VTError.h"
#include "tests/support/Words.h"
#include "tests/vtd/FakeRegistry.h"
#include "vtd/VTDAnnotationStore.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/VTDatabase.h"

namespace {

using fake::Names;

class Database : public testing::Test {
protected:
    Database() {
        database = *VTDatabase::initWithDatabase(root / "Annotations", registry);
        database->setCacheLimit(150);
    }

    // Data plug-ins in one bundle: what they are does not matter here, only how many there are.
    std::shared_ptr<fake::PlugIn> install(const std::string& identifier, Dictionary entitlements = {}) {
        const Dictionary info{{"KXExtension", Dictionary{{"KXExtensionProtocol", "#Data"}}}};
        if (registry->installed.empty()) root.writeList("bundle/Info.plist", info);
        auto proxy = std::make_shared<fake::PlugIn>(identifier, root / "bundle");
        proxy->held = std::move(entitlements);
        registry->installed.push_back(proxy);
        return proxy;
    }

    Texts candidates(const Dictionary& rules) {
        Texts identifiers;
        const auto found = database->findPlugIns(rules);
        for (const auto& plugIn : found.value()) identifiers.push_back(plugIn->identifier());
        return identifiers;
    }

    std::size_t cached() {
        return database->_sync()->sync([&] { return database->cache().size(); });
    }

    Value electionOf(const std::string& key) {
        const auto annotation = database->annotations()->annotationForIdentifier(key);
        const Value* election = annotation ? annotation->find("election") : nullptr;
        return election != nullptr ? *election : Value{"none"};
    }

    const support::PrivateRoot root;
    support::LogLines log;
    const std::shared_ptr<fake::Workspace> registry = std::make_shared<fake::Workspace>();
    std::shared_ptr<VTDatabase> database;
};

TEST_F(Database, LiteralRulesNarrowTheQuery) {
    install("a");
    const auto names = [](auto... texts) { return Names{Texts{texts...}}; };
    const std::pair<Names, Names> everything;
    const struct {
        const char* name;
        Value identifiers, points;
        std::pair<Names, Names> asked;  // of the registry
    } rows[] = {
        {"any", true, false, everything},
        {"both, lists", Array{"a", "=b"}, Array{"9"}, {names("a", "b"), names("9")}},
        {"behind an operator", "=", "=<x", {names(""), names("<x")}},
        {"one element is no literal, nor text", Array{"p", "<>q"}, Array{"p", 1}, everything},
        {"other operators, the other narrows", "?a", "p", {{}, names("p")}},
        {"empty text, punctuation", "", "-1", everything},
        {"letter and dash beyond ASCII", "\xC3\xA9", "\xE2\x80\x94", {names("\xC3\xA9"), {}}},
        {"no character, empty list", "\xC3", Array{}, {{}, names()}},
    };
    for (const auto& row : rows) {
        registry->asked.reset();
        candidates({{"KXExtensionIdentifier", row.identifiers}, {"KXExtensionPointName", row.points}});
        EXPECT_EQ(registry->asked.value_or(everything), row.asked) << row.name;
        EXPECT_EQ(registry->asked.has_value(), row.asked != everything) << row.name;
    }
    registry->asked.reset();
    EXPECT_EQ(candidates({{"KXUserElection", "1"}}).size(), 1U);
    EXPECT_FALSE(registry->asked);
}

TEST_F(Database, LiteralElectionsFilterANarrowedQuery) {
    const Value nothing{"none"};
    const struct {
        const char* name;
        Value stored;  // under "x", unless "none"
        Dictionary entitlements;
        Value pattern;
        bool accepted;
    } rows[] = {
        {"nothing stored is 0", nothing, {}, "0", true},
        {"elected by itself", nothing, {{kAutoElectEntitlement, true}}, "=1", true},
        {"not by a text", nothing, {{kAutoElectEntitlement, "1"}}, "1", false},
        {"stored 0 is no default", 0, {{kAutoElectEntitlement, true}}, "1", false},
        {"stored 1", 1, {}, Array{"7", "1"}, true},
        {"the low byte, unsigned", -1, {}, "255", true},
        {"decimal text, exactly", 1, {}, "01", false},
        {"an empty list admits none", 1, {}, Array{}, false},
        {"another's annotation", 1, {{kReplacePlugInEntitlement, "y"}}, "1", false},
    };
    for (const auto& row : rows) {
        registry->installed.clear();
        const auto proxy = install("x");
        const auto plugIn = database->plugInForProxy(proxy);
        database->setAnnotation(std::nullopt, *plugIn);
        if (row.stored != nothing) database->setAnnotation(Dictionary{{"election", row.stored}}, *plugIn);
        proxy->held = row.entitlements;
        const Dictionary rules{{"KXExtensionIdentifier", "x"}, {"KXUserElection", row.pattern}};
        EXPECT_EQ(candidates(rules).size(), row.accepted ? 1U : 0U) << row.name;
    }
}

TEST_F(Database, CandidatesAreThoseThatCanBeUsedOnceEachInTheRegistrysOrder) {
    for (const char* identifier : {"c", "a", "unplaced", "installing", "b"}) install(identifier);
    const auto proxy = [&](std::size_t i) {
        return std::const_pointer_cast<dravo::DVVeltoProxy>(registry->installed[i]);
    };
    static_cast<fake::PlugIn&>(*proxy(2)).path.reset();
    static_cast<fake::PlugIn&>(*proxy(3)).container = dravo::DVBundleProxy{registry->application, "/a.app"};
    registry->application->placeholder = true;
    registry->installed.push_back(registry->installed[1]);
    EXPECT_EQ(candidates({}), (Texts{"c", "a", "b"}));
    EXPECT_NE(database->findPlugIn(proxy(3)->pluginUUID()), nullptr);

    registry->application->placeholder = false;
    registry->answersQueries = false;
    EXPECT_EQ(candidates({{"KXExtensionIdentifier", "a"}}), (Texts{"c", "a", "installing", "b"}));
}

TEST_F(Database, CacheIsEmptiedWholeOnceItIsOverTheLimit) {
    for (int i = 0; i < 152; ++i) install("p" + std::to_string(i));
    const auto build = [&](std::size_t i) { return database->plugInForProxy(registry->installed[i]); };
    const auto first = build(0);
    for (std::size_t i = 1; i < 151; ++i) build(i);
    EXPECT_EQ(cached(), 151U);
    EXPECT_EQ(build(0), first);
    EXPECT_EQ(registry->cleared, 0);
    build(151);
    EXPECT_EQ(cached(), 1U);
    EXPECT_EQ(registry->cleared, 1);
    EXPECT_EQ(log.take(), (Texts{"purging cache for 151 > 150"}));
    EXPECT_NE(build(0), first);

    database->setCacheLimit(0);
    for (std::size_t i = 1; i < 4; ++i) {
        build(i);
        EXPECT_EQ(cached(), 1U);
    }
}

TEST_F(Database, LookupsThatFindNothingSaySo) {
    const auto proxy = install("a");
    EXPECT_EQ(database->findPlugInAtPath(root / "bundle"), database->findPlugIn(proxy->uuid));
    EXPECT_EQ(database->findPlugInAtPath("/nowhere"), nullptr);
    EXPECT_EQ(database->findPlugIn(value::Uuid{}), nullptr);
    EXPECT_EQ(log.take(), (Texts{"Dravo cannot find plug-in at path:/nowhere",
                                 "Dravo cannot find plug-in with UUID:00000000-0000-0000-0000-000000000000"}));
    EXPECT_EQ(database->plugInsWithinApplication("/a.app").value().size(), 1U);
    EXPECT_FALSE(database->plugInsWithinApplication("/b.app"));
    registry->installed.clear();
    EXPECT_FALSE(database->plugInsWithinApplication("/a.app"));
    EXPECT_EQ(database->addPlugIn("/p"), VTError(2, "Dravo failed to register the plug-in"));
    EXPECT_FALSE(database->removePlugIn("/p"));
}

TEST_F(Database, AutomaticElectionLeavesAChoiceAlone) {
    const struct { Value stored, after; } rows[] = {{"none", 1}, {0, 1}, {1, 1}, {-1, -1}, {Array{}, 1}};
    for (const auto& row : rows) {
        registry->installed.clear();
        const auto plain = database->plugInForProxy(install("x"));
        database->setAnnotation(std::nullopt, *plain);
        if (row.stored != Value{"none"}) database->setAnnotation(Dictionary{{"election", row.stored}}, *plain);
        EXPECT_EQ(electionOf("x"), row.stored);
        database->plugInForProxy(install("x", {{kAutoElectEntitlement, true}}));
        EXPECT_EQ(electionOf("x"), row.after) << value::description(row.stored);
    }
}

TEST_F(Database, UninstallDropsTheRecordAndTellsTheDelegateOutsideTheQueue) {
    struct Delegate : VTDatabaseDelegate {
        void removedPlugIns(const dravo::PluginList& plugIns) override {
            told += plugIns.size();
            outside = !queue->isCurrent();
        }
        std::shared_ptr<queue::SerialQueue> queue;
        std::size_t told = 0;
        bool outside = false;
    };
    const auto delegate = std::make_shared<Delegate>();
    delegate->queue = database->_sync();
    database->setDelegate(delegate);

    const auto proxy = install("a");
    const auto never = install("b");
    const auto before = database->plugInForProxy(proxy);
    const auto observer = registry->observer.lock();
    observer->pluginsDidInstall({proxy});
    observer->pluginsWillUninstall({proxy, never});
    const std::string rest = " a(7) " + proxy->uuid.string() + " " + root.path() + "/bundle";
    const Texts lines = log.take();
    EXPECT_EQ(lines.at(0), "INSTALLED:a" + rest);
    EXPECT_EQ(lines.at(1), "UNINSTALLED:a" + rest);
    EXPECT_EQ(delegate->told, 2U);
    EXPECT_TRUE(delegate->outside);
    EXPECT_EQ(cached(), 0U);

    // Still known to the registry for a moment: usable, but not kept, since its end has been announced already.
    const auto departing = database->plugInForProxy(proxy);
    EXPECT_NE(departing, nullptr);
    EXPECT_NE(departing, before);
    EXPECT_EQ(cached(), 0U);
}

TEST_F(Database, WhatBreaksItsContractStopsTheDaemon) {
    const auto proxy = install("a");
    EXPECT_DEATH((logging::setSink({}), database->createPlugInForProxy(proxy)), "createPlugInForProxy");
    proxy->container = dravo::DVBundleProxy{nullptr, "/somewhere"};
    EXPECT_DEATH((logging::setSink({}), candidates({})), "DV reported containingBundle is not an application");
}

}  // namespace
