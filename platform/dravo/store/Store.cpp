#include "platform/dravo/store/Store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <type_traits>

#include "platform/dravo/scan/Bounds.h"
#include "platform/dravo/store/Cells.h"
#include "platform/dravo/store/Columns.h"
#include "platform/logging/Log.h"
#include "platform/text/Format.h"

namespace dravo {

namespace {

constexpr std::int64_t kVersion = 3;  // of the tables below; a later one is not read, an earlier one is upgraded
constexpr std::int64_t kPlugInsPerBundle = kMultipleLimit;

// No index but the rows' numbers: everything is read at the start, which also shows any damage, and each later write
// knows the numbers of its rows. A plug-in's is its bundle's times kPlugInsPerBundle, plus its place in the bundle.
struct Table {
    const char* name;
    bool hasPath;
};
constexpr Table kApplications{"application", true}, kBundles{"bundle", true}, kPlugIns{"plugin", false};
constexpr char kRegistrationSchema[] = "CREATE TABLE registration (path TEXT PRIMARY KEY) WITHOUT ROWID;";

// What makes a version the next one, from the first. What an earlier one did not know of a directory or an SDK is
// NULL, so that it is looked at again; everything else stays.
constexpr const char* kUpgrades[] = {
    "ALTER TABLE application ADD COLUMN identity BLOB; ALTER TABLE bundle ADD COLUMN identity BLOB;",
    "ALTER TABLE plugin ADD COLUMN sdk INTEGER;",
};
static_assert(std::size(kUpgrades) == kVersion - 1);

value::Error damaged(const std::string& what) {
    return {"dravo.store", static_cast<std::int64_t>(StoreTrouble::damaged), "registry store: " + what};
}

// The number of the first column of facts.
constexpr int firstFact(const Table& table) {
    return table.hasPath ? 2 : 1;
}

// What stands before the facts, and the names of these, with what is to follow each of all.
template <typename Columns, typename Behind>
std::string list(const Table& table, const Columns& columns, const std::string& row, const char* path,
                 const Behind& behind) {
    std::string text = row;
    if (table.hasPath) text += std::string{", path"} + path;
    columns::forEach(columns, [&](const auto& column) { text += std::string{", "} + column.name + behind(column); });
    return text;
}

template <typename Columns>
std::string namesOf(const Table& table, const Columns& columns) {
    return list(table, columns, "row", "", [](const auto& /*column*/) { return ""; });
}

template <typename Columns>
std::string schemaOf(const Table& table, const Columns& columns) {
    const auto typed = [](const auto& column) {
        return std::string{" "} + cells::kDeclaration<typename std::remove_cvref_t<decltype(column)>::Fact>;
    };
    return text::format("CREATE TABLE {} ({});", table.name,
                        list(table, columns, "row INTEGER PRIMARY KEY", " TEXT NOT NULL", typed));
}

template <typename Columns>
std::string insertionInto(const char* verb, const Table& table, const Columns& columns) {
    std::string places = table.hasPath ? "?,?" : "?";
    columns::forEach(columns, [&](const auto& /*column*/) { places += ",?"; });
    return text::format("{} INTO {} ({}) VALUES ({})", verb, table.name, namesOf(table, columns), places);
}

template <typename Columns>
std::string selectionFrom(const Table& table, const Columns& columns) {
    return text::format("SELECT {} FROM {} ORDER BY row", namesOf(table, columns), table.name);
}

template <typename Columns, typename Facts>
bool readFacts(const Statement& row, const Table& table, const Columns& columns, Facts& facts) {
    int at = firstFact(table);
    return columns::all(columns, [&](const auto& column) { return cells::read(row, at++, facts.*column.member); });
}

template <typename Columns, typename Facts>
std::optional<value::Error> writeFacts(Statement& put, const Table& table, const Columns& columns, std::int64_t row,
                                       std::string_view path, const Facts& facts) {
    cells::Kept kept;
    put.bind(0, row);
    if (table.hasPath) put.bind(1, path);
    int at = firstFact(table);
    columns::forEach(columns, [&](const auto& column) { cells::bind(put, at++, facts.*column.member, kept); });
    return put.run();
}

// Keeps the file, and the log of what was not yet moved into it, under a name of their own.
std::optional<value::Error> setAside(const std::string& path, const std::string& why) {
    const std::string stem = path + ".kept-" + std::to_string(std::time(nullptr));
    std::string kept = stem;
    for (int count = 1; ::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, kept.c_str(), RENAME_NOREPLACE) != 0; ++count) {
        if (errno != EEXIST || count > 100) return value::posixError(errno, "cannot set aside " + path);
        kept = stem + "-" + std::to_string(count);
    }
    if (::rename((path + "-wal").c_str(), (kept + "-wal").c_str()) != 0 && errno != ENOENT) {
        return value::posixError(errno, "cannot set aside " + path + "-wal");
    }
    logging::error(text::format("{}; kept as {}, starting anew", why, kept));
    return {};
}

// Of an application or a bundle.
template <typename Columns, typename Facts>
bool readRecord(const Statement& row, const Table& table, const Columns& columns,
                std::vector<std::pair<std::string, Facts>>& records, std::int64_t& lastRow) {
    Facts facts;
    facts.row = row.number(0);
    if (!readFacts(row, table, columns, facts)) return false;
    lastRow = std::max(lastRow, facts.row);
    records.emplace_back(row.text(1), std::move(facts));
    return true;
}

// Hands each row to `visit`, which answers whether it could be made sense of.
template <typename Visit>
std::optional<value::Error> forEachRow(Database& database, const std::string& sql, Visit visit) {
    auto statement = Statement::prepare(database, sql.c_str());
    if (!statement) return statement.error();
    for (;;) {
        const auto row = statement->step();
        if (!row) return row.error();
        if (!*row) return {};
        if (!visit(*statement)) return damaged("a row that makes no sense: " + sql);
    }
}

// All of it or nothing.
std::optional<value::Error> upgrade(Database& database, std::int64_t version) {
    std::string steps = "BEGIN IMMEDIATE;";
    for (std::int64_t from = version; from < kVersion; ++from) steps += kUpgrades[from - 1];
    auto error = database.execute((steps + text::format("PRAGMA user_version = {}; COMMIT;", kVersion)).c_str());
    if (error) static_cast<void>(database.execute("ROLLBACK"));
    return error;
}

}  // namespace

struct Store::Statements {
    Statement putApplication, dropApplication, putBundle, dropBundle, putPlugIn, dropPlugIns, putRegistration,
        dropRegistration;

    static value::Result<std::unique_ptr<Statements>> prepare(Database& database);
};

value::Result<std::unique_ptr<Store::Statements>> Store::Statements::prepare(Database& database) {
    const std::string sql[] = {
        insertionInto("INSERT OR REPLACE", kApplications, kApplicationColumns),
        "DELETE FROM application WHERE row = ?",
        insertionInto("INSERT OR REPLACE", kBundles, kBundleColumns),
        "DELETE FROM bundle WHERE row = ?",
        insertionInto("INSERT", kPlugIns, kPlugInColumns),
        "DELETE FROM plugin WHERE row BETWEEN ? AND ?",
        "INSERT OR REPLACE INTO registration VALUES (?)",
        "DELETE FROM registration WHERE path = ?",
    };
    std::vector<Statement> made;
    for (const std::string& each : sql) {
        auto statement = Statement::prepare(database, each.c_str());
        if (!statement) return statement.error();
        made.push_back(std::move(*statement));
    }
    return std::make_unique<Statements>(Statements{std::move(made[0]), std::move(made[1]), std::move(made[2]),
                                                   std::move(made[3]), std::move(made[4]), std::move(made[5]),
                                                   std::move(made[6]), std::move(made[7])});
}

Store::Store(Database database) : database_{std::move(database)} {}

Store::~Store() = default;

value::Result<Store::Opened> Store::open(const std::string& path) {
    auto opened = openOnce(path);
    if (opened) return opened;
    const value::Error& error = opened.error();
    if (error.domain != "dravo.store" || error.code == static_cast<std::int64_t>(StoreTrouble::failed)) return error;
    return openAnew(path, error.localizedDescription());
}

value::Result<Store::Opened> Store::openAnew(const std::string& path, const std::string& why) {
    if (auto failed = setAside(path, why)) return *failed;
    return openOnce(path);
}

value::Result<Store::Opened> Store::openOnce(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) return damaged(path + " is no regular file");
    auto database = Database::open(path);
    if (!database) return database.error();
    const auto version = database->number("PRAGMA user_version");
    if (!version) return version.error();
    const auto tables = database->number("SELECT count(*) FROM sqlite_schema");
    if (!tables) return tables.error();
    const bool isNew = *version == 0 && *tables == 0;
    if (isNew) {
        const std::string setup = text::format(
            "BEGIN; {}{}{}{} PRAGMA user_version = {}; COMMIT;", schemaOf(kApplications, kApplicationColumns),
            schemaOf(kBundles, kBundleColumns), schemaOf(kPlugIns, kPlugInColumns), kRegistrationSchema, kVersion);
        if (auto error = database->execute(setup.c_str())) return *error;
    } else if (*version >= 1 && *version < kVersion) {
        if (auto error = upgrade(*database, *version)) return *error;
    } else if (*version != kVersion) {
        return value::Error{"dravo.store", static_cast<std::int64_t>(StoreTrouble::otherKind),
                            text::format("registry store {} is of version {}, not {}", path, *version, kVersion)};
    }
    auto contents = load(*database);
    if (!contents) return contents.error();
    contents->isNew = isNew;
    // The statements refer to the database where it lies for good.
    std::unique_ptr<Store> store{new Store{std::move(*database)}};
    auto statements = Statements::prepare(store->database_);
    if (!statements) return statements.error();
    store->statements_ = std::move(*statements);
    store->database_.releaseMemory();
    return Opened{std::move(store), std::move(*contents)};
}

value::Result<Store::Contents> Store::load(Database& database) {
    Contents contents;
    if (auto error = forEachRow(database, selectionFrom(kApplications, kApplicationColumns), [&](const Statement& row) {
            return readRecord(row, kApplications, kApplicationColumns, contents.applications, contents.lastRow);
        })) {
        return *error;
    }
    auto& bundles = contents.bundles;
    if (auto error = forEachRow(database, selectionFrom(kBundles, kBundleColumns), [&](const Statement& row) {
            return readRecord(row, kBundles, kBundleColumns, bundles, contents.lastRow);
        })) {
        return *error;
    }
    // Both in the order of their rows, so that a plug-in's bundle is found by walking on.
    std::size_t at = 0;
    if (auto error = forEachRow(database, selectionFrom(kPlugIns, kPlugInColumns), [&](const Statement& row) {
            const std::int64_t bundle = row.number(0) / kPlugInsPerBundle;
            while (at < bundles.size() && bundles[at].second.row < bundle) ++at;
            if (at == bundles.size() || bundles[at].second.row != bundle) return false;
            return readFacts(row, kPlugIns, kPlugInColumns, bundles[at].second.plugIns.emplace_back());
        })) {
        return *error;
    }
    if (auto error = forEachRow(database, "SELECT path FROM registration", [&](const Statement& row) {
            contents.registrations.push_back(row.text(0));
            return true;
        })) {
        return *error;
    }
    return contents;
}

std::optional<value::Error> Store::save(const Changes& changes) {
    if (auto error = database_.execute("BEGIN IMMEDIATE")) return error;
    auto error = write(changes);
    if (!error) error = database_.execute("COMMIT");
    // The failure that counts is the one above; when the rollback fails, too, the next save begins with an error.
    if (error) static_cast<void>(database_.execute("ROLLBACK"));
    database_.releaseMemory();
    return error;
}

std::optional<value::Error> Store::write(const Changes& changes) {
    if (changes.everything) {
        if (auto error = database_.execute("DELETE FROM application; DELETE FROM bundle; DELETE FROM plugin;"
                                           "DELETE FROM registration")) {
            return error;
        }
    }
    for (const auto& application : changes.applicationsGone) {
        statements_->dropApplication.bind(0, application->facts().row);
        if (auto error = statements_->dropApplication.run()) return error;
    }
    for (const auto& bundle : changes.bundlesGone) {
        const std::int64_t row = bundle->facts().row;
        statements_->dropBundle.bind(0, row);
        if (auto error = statements_->dropBundle.run()) return error;
        statements_->dropPlugIns.bind(0, row * kPlugInsPerBundle);
        statements_->dropPlugIns.bind(1, row * kPlugInsPerBundle + kPlugInsPerBundle - 1);
        if (auto error = statements_->dropPlugIns.run()) return error;
    }
    for (const auto& application : changes.applicationsNew) {
        const ApplicationFacts& facts = application->facts();
        if (auto error = writeFacts(statements_->putApplication, kApplications, kApplicationColumns, facts.row,
                                    application->bundlePath(), facts)) {
            return error;
        }
    }
    for (const auto& bundle : changes.bundlesNew) {
        if (auto error = writeBundle(*bundle)) return error;
    }
    for (const std::string& path : changes.registrationsGone) {
        statements_->dropRegistration.bind(0, std::string_view{path});
        if (auto error = statements_->dropRegistration.run()) return error;
    }
    for (const std::string& path : changes.registrationsNew) {
        statements_->putRegistration.bind(0, std::string_view{path});
        if (auto error = statements_->putRegistration.run()) return error;
    }
    return {};
}

std::optional<value::Error> Store::writeBundle(const BundleRecord& bundle) {
    const BundleFacts& facts = bundle.facts();
    if (auto error = writeFacts(statements_->putBundle, kBundles, kBundleColumns, facts.row, bundle.path(), facts)) {
        return error;
    }
    std::int64_t row = facts.row * kPlugInsPerBundle;
    for (const PlugInFacts& plugIn : facts.plugIns) {
        if (auto error = writeFacts(statements_->putPlugIn, kPlugIns, kPlugInColumns, row++, {}, plugIn)) return error;
    }
    return {};
}

}  // namespace dravo
