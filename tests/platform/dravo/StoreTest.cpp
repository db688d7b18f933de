#include <fstream>
#include <map>

#include "platform/dravo/Store.h"
#include "tests/platform/dravo/Installation.h"

namespace dravo {
namespace {

TEST(Store, ASecondWorkspaceIsToldWhoHoldsTheFirst) {
    Installation world;
    world.start();
    EXPECT_THAT(whyNot(DVApplicationWorkspace::open()), HasSubstr(std::to_string(::getpid())));
    world.stop();
    EXPECT_TRUE(DVApplicationWorkspace::open());
}

Texts kept(const Installation& world) {
    Texts names;
    for (const auto& entry : fs::directory_iterator{world.root / "state"}) {
        const std::string name = entry.path().filename();
        if (name.starts_with("Registry.db.kept-") && !name.ends_with("-wal")) names.push_back(name);
    }
    return names;
}

TEST(Store, ThatCannotBeReadIsKeptAsideAndRebuilt) {
    const std::pair<const char*, void (*)(const std::string& path)> kDamage[] = {
        {"not a database", [](const std::string& path) { std::ofstream{path} << std::string(5000, 'x'); }},
        {"cut short", [](const std::string& path) { fs::resize_file(path, 4096 + 100); }},
        {"pages overwritten",
         [](const std::string& path) {
             std::fstream file{path, std::ios::in | std::ios::out | std::ios::binary};
             file.seekp(4096);
             file << std::string(8192, '\xa5');
         }},
        {"another version",
         [](const std::string& path) { ASSERT_FALSE(Database::open(path)->execute("PRAGMA user_version = 77")); }},
        {"rows that make no sense",
         [](const std::string& path) { ASSERT_FALSE(Database::open(path)->execute("UPDATE plugin SET uuid = 'x'")); }},
        {"a directory",
         [](const std::string& path) {
             fs::remove(path);
             fs::create_directory(path);
         }},
    };
    for (const auto& [name, damage] : kDamage) {
        SCOPED_TRACE(name);
        Installation world;
        for (int i = 0; i < 40; ++i) world.plugIn("system/PlugIns/" + std::to_string(i), "id" + std::to_string(i));
        world.start();
        world.stop();
        damage(world.root / "state/Registry.db");
        auto& workspace = world.start();
        EXPECT_EQ(workspace.installedPlugins()->size(), 40U);
        ASSERT_EQ(kept(world).size(), 1U);
        EXPECT_THAT(world.log(), ElementsAre(AllOf(HasSubstr("Registry.db"), HasSubstr(kept(world)[0]))));
        const auto witness = std::make_shared<Witness>();
        workspace.addObserver(witness);
        world.start();
        EXPECT_THAT(world.log(), IsEmpty());
        EXPECT_THAT(witness->await(0), IsEmpty());
    }
}

// A writer that is killed at any moment leaves what was before its last transaction, or what is after it.
TEST(Store, IsWholeWheneverItsWriterIsKilled) {
    const support::TemporaryDirectory directory;
    const std::string path = directory / "Registry.db";
    const auto surroundings = std::make_shared<Surroundings>("");
    // Each generation replaces all bundles by ones whose digest is the generation.
    const auto write = [&](Store& store, std::uint64_t generation) {
        Store::Changes changes;
        for (std::int64_t row = 1; row <= 20; ++row) {
            BundleFacts facts;
            facts.row = row;
            facts.digest = generation;
            facts.plugIns.resize(2);
            facts.plugIns[0].uuid = facts.plugIns[1].uuid = value::Uuid::random();
            facts.plugIns[0].identifier = facts.plugIns[1].identifier = std::string(100, 'i');
            changes.bundlesNew.push_back(std::make_shared<const BundleRecord>(
                BundlePlace{"/b" + std::to_string(row), false, nullptr}, facts, std::vector<bool>(2), surroundings));
        }
        changes.bundlesGone = changes.bundlesNew;
        changes.registrationsNew = {std::to_string(generation)};
        return store.save(changes);
    };
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
        ASSERT_EQ(::kill(child, SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << status;
        const auto opened = Store::open(path);
        ASSERT_TRUE(opened);
        const Store::Contents& contents = opened->contents;
        if (contents.bundles.empty()) continue;
        const std::uint64_t generation = contents.bundles[0].second.digest;
        EXPECT_GE(generation, last);
        EXPECT_EQ(contents.bundles.size(), 20U);
        EXPECT_EQ(contents.registrations.size(), generation);
        for (const auto& [name, facts] : contents.bundles) {
            EXPECT_EQ(facts.digest, generation);
            EXPECT_EQ(facts.plugIns.size(), 2U);
        }
        last = generation;
    }
    EXPECT_GT(last, 0U);
    for (const auto& entry : fs::directory_iterator{directory.path()}) {
        EXPECT_THAT(entry.path().string(), Not(HasSubstr("kept")));
    }
}

}  // namespace
}  // namespace dravo
