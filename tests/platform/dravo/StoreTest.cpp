#include "platform/dravo/store/Columns.h"
#include "platform/dravo/store/Store.h"
#include "tests/platform/dravo/Installation.h"

namespace dravo {
namespace {

TEST(Store, ThatCannotBeReadIsKeptAsideAndRebuilt) {
    using Path = const std::string&;
    const auto execute = [](Path path, const char* sql) { ASSERT_FALSE(Database::open(path)->execute(sql)); };
    const std::pair<const char*, std::function<void(Path path)>> kDamage[] = {
        {"not a database", [](Path path) { std::ofstream{path} << std::string(5000, 'x'); }},
        {"cut short", [](Path path) { fs::resize_file(path, 4096 + 100); }},
        {"pages overwritten",
         [](Path path) {
             std::fstream{path, std::ios::in | std::ios::out}.seekp(4096) << std::string(8192, '\xa5');
         }},
        {"another version", [&](Path path) { execute(path, "PRAGMA user_version = 77"); }},
        {"rows that make no sense", [&](Path path) { execute(path, "UPDATE plugin SET uuid = 'x'"); }},
        {"a directory", [](Path path) { fs::remove(path), fs::create_directory(path); }},
    };
    for (const auto& [name, damage] : kDamage) {
        SCOPED_TRACE(name);
        Installation world;
        for (int i = 0; i < 40; ++i) world.plugIn("system/PlugIns/" + std::to_string(i), "id" + std::to_string(i));
        world.start();
        world.stop();
        damage(world.root / "state/Registry.db");
        EXPECT_THAT(world.start().installedPlugins().value(), SizeIs(40));
        EXPECT_THAT(world.log.take(), ElementsAre(AllOf(HasSubstr("Registry.db"), HasSubstr("kept-"))));
        const auto isKept = [](const auto& entry) { return entry.path().string().find(".kept-") != std::string::npos; };
        EXPECT_GT(std::count_if(fs::directory_iterator{world.root / "state"}, {}, isKept), 0);
        const auto witness = world.witness();
        world.start();
        EXPECT_THAT(world.log.take(), IsEmpty());
        EXPECT_EQ(witness->told(""), "");
    }
}

// As the first version made it, which knew of no identity nor SDK.
TEST(Store, OfAnEarlierVersionIsUpgradedWithAllThatItHolds) {
    Installation world;
    world.plugIn("system/Applications/A.app/PlugIns/P", "a");
    const std::string registered = world.plugIn("elsewhere/B.app/PlugIns/P", "b");
    const std::string path = world.root / "state/Registry.db";
    ASSERT_TRUE(world.start().registerPlugin(registered, kAnybody));
    const auto before = *world.start().installedPlugins();
    ASSERT_EQ(world.identifiers(), "b a");
    world.stop();
    constexpr char kDowngrade[] = R"(
        CREATE TABLE a (row INTEGER PRIMARY KEY, path TEXT NOT NULL, container TEXT, identifier TEXT, name TEXT,
                        info BLOB NOT NULL);
        INSERT INTO a SELECT row, path, container, identifier, name, info FROM application;
        CREATE TABLE b (row INTEGER PRIMARY KEY, path TEXT NOT NULL, stamps BLOB NOT NULL, digest INTEGER NOT NULL,
                        identifier TEXT NOT NULL, version TEXT NOT NULL, displayName TEXT, shortName TEXT,
                        entitlements BLOB, refusal TEXT NOT NULL, remark TEXT NOT NULL);
        INSERT INTO b SELECT row, path, stamps, digest, identifier, version, displayName, shortName, entitlements,
                             refusal, remark FROM bundle;
        ALTER TABLE plugin DROP COLUMN sdk;
        DROP TABLE application; DROP TABLE bundle;
        ALTER TABLE a RENAME TO application; ALTER TABLE b RENAME TO bundle;
        PRAGMA user_version = 1;
    )";
    ASSERT_FALSE(Database::open(path)->execute(kDowngrade));
    for (int start = 0; start < 2; ++start) {
        const auto after = *world.start().installedPlugins();
        const auto witness = world.witness();
        world.settle();
        ASSERT_THAT(after, SizeIs(before.size()));
        for (std::size_t i = 0; i < after.size(); ++i) {
            EXPECT_EQ(after[i]->pluginUUID(), before[i]->pluginUUID());
            EXPECT_EQ(after[i]->registrationDate(), before[i]->registrationDate());
            EXPECT_TRUE(after[i]->openBundle()) << "it was looked at again";
        }
        EXPECT_EQ(witness->told(""), "") << "nothing came or went";
        world.stop();
    }
    EXPECT_EQ(*Database::open(path)->number("PRAGMA user_version"), 3);
    EXPECT_THAT(world.log.take(), IsEmpty());
}

// A value of a fact's type that no other number gives.
template <typename Fact>
void make(int number, Fact& fact) {
    const auto unsignedNumber = static_cast<std::uint64_t>(number);
    if constexpr (std::is_same_v<Fact, bool>)
        fact = !fact;
    else if constexpr (std::is_same_v<Fact, double>)
        fact = number + 0.5;
    else if constexpr (std::is_same_v<Fact, std::uint64_t>)
        fact = ~unsignedNumber;
    else if constexpr (requires { fact.has_value(); })
        make(number, fact.emplace());
    else if constexpr (std::is_same_v<Fact, value::Uuid>)
        fact = value::Uuid{{static_cast<std::uint8_t>(number)}};
    else if constexpr (requires { fact.inode; })
        fact.device = unsignedNumber, fact.inode = 1;
    else if constexpr (requires { fact.directory; })
        make(number, fact.directory), make(-number, fact.entitlements);
    else if constexpr (std::is_same_v<Fact, Dictionary>)
        fact = {{"a", number}};
    else if constexpr (std::is_same_v<Fact, Texts>)
        fact = {"a", std::to_string(number)};
    else
        fact = "text" + std::to_string(number);
}

template <typename Columns, typename Facts>
void makeAll(const Columns& columns, int number, Facts& facts) {
    columns::forEach(columns, [&](const auto& column) { make(number += 2, facts.*column.member); });
}

// What does not count when two records are compared, by the names of their columns.
const std::set<std::string> kBookkeeping{"info",    "identity",    "stamps",    "identifier of bundle",
                                         "version", "displayName", "shortName", "remark"};

template <typename Columns, typename Facts>
void expectSame(const Columns& columns, const Facts& written, const Facts& read, const std::string& of) {
    columns::forEach(columns, [&](const auto& column) {
        EXPECT_TRUE(written.*column.member == read.*column.member) << column.name << of << " is not read back";
        Facts other = written;
        make(101, other.*column.member);
        const bool isKept = kBookkeeping.contains(column.name) || kBookkeeping.contains(column.name + of);
        EXPECT_EQ(sameFacts(columns, written, other), isKept) << column.name << of;
        other.*column.member = {};
        EXPECT_EQ(sameFacts(columns, written, other), isKept || column.name == std::string{"sdk"}) << column.name;
    });
}

TEST(Store, GivesEveryFactBackAndTellsWhichMakeAnotherRecord) {
    const support::TemporaryDirectory directory;
    const std::string path = directory / "Registry.db";
    ApplicationFacts application;
    BundleFacts bundle;
    application.row = 1;
    bundle.row = 2;
    makeAll(kApplicationColumns, 10, application);
    makeAll(kBundleColumns, 20, bundle);
    for (const int first : {0, 40}) makeAll(kPlugInColumns, first, bundle.plugIns.emplace_back());
    Store::Changes changes;
    changes.applicationsNew = {std::make_shared<const ApplicationRecord>("/a", application)};
    changes.bundlesNew = {std::make_shared<const BundleRecord>(
        BundlePlace{"/b", false, nullptr}, bundle, std::make_shared<Surroundings>("", directory / "images"))};
    changes.registrationsNew = {"/b"};
    ASSERT_FALSE(Store::open(path)->store->save(changes));
    const Store::Contents read = Store::open(path)->contents;
    ASSERT_EQ(read.applications.size() * read.bundles.size(), 1U);
    EXPECT_EQ(read.applications[0].first + read.bundles[0].first + read.registrations.at(0), "/a/b/b");
    EXPECT_EQ(read.lastRow, 2);
    expectSame(kApplicationColumns, application, read.applications[0].second, " of application");
    expectSame(kBundleColumns, bundle, read.bundles[0].second, " of bundle");
    ASSERT_EQ(read.bundles[0].second.plugIns.size(), 2U);
    for (int i : {0, 1})
        expectSame(kPlugInColumns, bundle.plugIns[i], read.bundles[0].second.plugIns[i], " of plug-in");
}

// A writer that is killed at any moment leaves what was before its last transaction, or what is after it.
TEST(Store, IsWholeWheneverItsWriterIsKilled) {
    const support::TemporaryDirectory directory;
    const std::string path = directory / "Registry.db";
    const auto surroundings = std::make_shared<Surroundings>("", directory / "images");
    // Each generation replaces all bundles by ones whose digest is the generation, and adds a registration.
    const auto write = [&](Store& store, std::uint64_t generation) {
        Store::Changes changes;
        for (std::int64_t row = 1; row <= 20; ++row) {
            BundleFacts facts;
            facts.row = row;
            facts.digest = generation;
            changes.bundlesNew.push_back(std::make_shared<const BundleRecord>(
                BundlePlace{"/b" + std::to_string(row), false, nullptr}, facts, surroundings));
        }
        changes.bundlesGone = changes.bundlesNew;
        changes.registrationsNew = {std::to_string(generation)};
        return store.save(changes);
    };
    support::LogLines log;
    std::uint64_t last = 0;
    for (int round = 0; round < 25; ++round) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            auto opened = Store::open(path);
            if (!opened) ::_exit(1);
            for (std::uint64_t generation = last + 1;; ++generation) {
                if (write(*opened->store, generation)) ::_exit(2);
            }
        }
        // However far it gets: the time is the dice here, nothing waits for it.
        ::usleep(static_cast<useconds_t>(3000 + round * 1777 % 20'000));
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << status;
        const auto opened = Store::open(path);
        ASSERT_TRUE(opened);
        const Store::Contents& contents = opened->contents;
        if (contents.bundles.empty()) continue;
        const std::uint64_t generation = contents.registrations.size();
        EXPECT_GE(generation, last);
        EXPECT_THAT(contents.bundles, SizeIs(20));
        for (const auto& [name, facts] : contents.bundles) EXPECT_EQ(facts.digest, generation);
        last = generation;
    }
    EXPECT_GT(last, 0U);
    EXPECT_THAT(log.take(), IsEmpty()) << "none was given up";
}

}  // namespace
}  // namespace dravo
