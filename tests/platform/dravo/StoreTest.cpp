#include "platform/dravo/Store.h"
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
