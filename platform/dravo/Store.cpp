#include "platform/dravo/Store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <type_traits>
#include <unordered_map>

#include "platform/dravo/Bounds.h"
#include "platform/logging/Log.h"
#include "platform/mox/Encoder.h"
#include "platform/mox/Object.h"
#include "platform/text/Format.h"

namespace dravo {

namespace {

constexpr std::int64_t kVersion = 3;  // of the tables below; a later one is not read, an earlier one is upgraded
constexpr std::int64_t kPlugInsPerBundle = kMultipleLimit;

// No index but the rows' numbers: everything is read at the start, which also shows any damage, and each later write
// knows the numbers of its rows. A plug-in's is its bundle's times kPlugInsPerBundle, plus its place in the bundle.
constexpr char kSchema[] = R"(
    CREATE TABLE application (row INTEGER PRIMARY KEY, path TEXT NOT NULL, container TEXT, identifier TEXT, name TEXT,
                              info BLOB NOT NULL, identity BLOB);
    CREATE TABLE bundle (row INTEGER PRIMARY KEY, path TEXT NOT NULL, stamps BLOB NOT NULL, digest INTEGER NOT NULL,
                         identifier TEXT NOT NULL, version TEXT NOT NULL, displayName TEXT, shortName TEXT,
                         entitlements BLOB, refusal TEXT NOT NULL, remark TEXT NOT NULL, identity BLOB);
    CREATE TABLE plugin (row INTEGER PRIMARY KEY, uuid BLOB NOT NULL, identifier TEXT NOT NULL,
                         registered REAL NOT NULL, extensionPoint TEXT, pointNames BLOB, anyPoint INTEGER NOT NULL,
                         sdk INTEGER);
    CREATE TABLE registration (path TEXT PRIMARY KEY) WITHOUT ROWID;
)";

// What makes a version the next one, from the first. What an earlier one did not know of a directory or an SDK is
// NULL, so that it is looked at again; everything else stays.
constexpr const char* kUpgrades[] = {
    "ALTER TABLE application ADD COLUMN identity BLOB; ALTER TABLE bundle ADD COLUMN identity BLOB;",
    "ALTER TABLE plugin ADD COLUMN sdk INTEGER;",
};
static_assert(std::size(kUpgrades) == kVersion - 1);

constexpr mox::Limits kValueLimits{std::size_t{64} << 20, 128, 4'000'000};

value::Error damaged(const std::string& what) {
    return {"dravo.store", static_cast<std::int64_t>(StoreTrouble::damaged), "registry store: " + what};
}

template <typename T>
std::span<const std::byte> bytesOf(const T& object) {
    static_assert(std::is_trivially_copyable_v<T> && std::has_unique_object_representations_v<T>);
    return std::as_bytes(std::span{&object, 1});
}

template <typename T>
bool read(std::span<const std::byte> bytes, T& object) {
    if (bytes.size() != sizeof(T)) return false;
    std::memcpy(&object, bytes.data(), sizeof(T));
    return true;
}

bool readIdentity(std::span<const std::byte> bytes, file::Identity& identity) {
    return bytes.empty() || read(bytes, identity);
}

std::vector<std::byte> encode(const value::Value& value) {
    mox::Encoder encoder;
    encoder.value(value);
    return encoder.take();
}

std::optional<value::Value> decode(std::span<const std::byte> bytes) {
    const auto object = mox::Object::decode({bytes.begin(), bytes.end()}, kValueLimits);
    if (!object) return {};
    return object->view().toValue();
}

value::Array toArray(const std::vector<std::string>& texts) {
    return value::Array{value::Array::Storage{texts.begin(), texts.end()}};
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

bool readApplication(const Statement& row, Store::Contents& contents) {
    ApplicationFacts facts;
    facts.row = row.number(0);
    facts.containerPath = row.optionalText(2);
    facts.identifier = row.optionalText(3);
    facts.name = row.optionalText(4);
    if (!read(row.bytes(5), facts.info) || !readIdentity(row.bytes(6), facts.identity)) return false;
    contents.lastRow = std::max(contents.lastRow, facts.row);
    contents.applications.emplace_back(row.text(1), std::move(facts));
    return true;
}

bool readBundle(const Statement& row, Store::Contents& contents) {
    BundleFacts facts;
    facts.row = row.number(0);
    if (!read(row.bytes(2), facts.stamps) || !readIdentity(row.bytes(11), facts.identity)) return false;
    facts.digest = static_cast<std::uint64_t>(row.number(3));
    facts.identifier = row.text(4);
    facts.version = row.text(5);
    facts.displayName = row.optionalText(6);
    facts.shortName = row.optionalText(7);
    if (const auto bytes = row.bytes(8); !bytes.empty()) {
        const auto entitlements = decode(bytes);
        if (!entitlements || !entitlements->dictionary()) return false;
        facts.entitlements = *entitlements->dictionary();
    }
    facts.refusal = row.text(9);
    facts.remark = row.text(10);
    contents.lastRow = std::max(contents.lastRow, facts.row);
    contents.bundles.emplace_back(row.text(1), std::move(facts));
    return true;
}

bool readPlugIn(const Statement& row, BundleFacts& bundle) {
    PlugInFacts facts;
    value::Uuid::Bytes uuid;
    if (!read(row.bytes(1), uuid)) return false;
    facts.uuid = value::Uuid{uuid};
    facts.identifier = row.text(2);
    facts.registered = row.real(3);
    facts.extensionPoint = row.optionalText(4);
    if (const auto bytes = row.bytes(5); !bytes.empty()) {
        const auto names = decode(bytes);
        if (!names || !names->array()) return false;
        for (const value::Value& name : *names->array()) {
            if (const std::string* const text = name.string()) facts.pointNames.push_back(*text);
        }
    }
    facts.anyPoint = row.number(6) != 0;
    if (const auto digest = row.optionalNumber(7)) facts.sdk = static_cast<std::uint64_t>(*digest);
    bundle.plugIns.push_back(std::move(facts));
    return true;
}

// Hands each row to `visit`, which answers whether it could be made sense of.
template <typename Visit>
std::optional<value::Error> forEachRow(Database& database, const char* sql, Visit visit) {
    auto statement = Statement::prepare(database, sql);
    if (!statement) return statement.error();
    for (;;) {
        const auto row = statement->step();
        if (!row) return row.error();
        if (!*row) return {};
        if (!visit(*statement)) return damaged(std::string{"a row that makes no sense: "} + sql);
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
    constexpr const char* kSql[] = {
        "INSERT OR REPLACE INTO application VALUES (?,?,?,?,?,?,?)",
        "DELETE FROM application WHERE row = ?",
        "INSERT OR REPLACE INTO bundle VALUES (?,?,?,?,?,?,?,?,?,?,?,?)",
        "DELETE FROM bundle WHERE row = ?",
        "INSERT INTO plugin VALUES (?,?,?,?,?,?,?,?)",
        "DELETE FROM plugin WHERE row BETWEEN ? AND ?",
        "INSERT OR REPLACE INTO registration VALUES (?)",
        "DELETE FROM registration WHERE path = ?",
    };
    std::vector<Statement> made;
    for (const char* const sql : kSql) {
        auto statement = Statement::prepare(database, sql);
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
        const std::string setup = text::format("BEGIN; {} PRAGMA user_version = {}; COMMIT;", kSchema, kVersion);
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
    if (auto error =
            forEachRow(database, "SELECT row, path, container, identifier, name, info, identity FROM application",
                       [&](const Statement& row) { return readApplication(row, contents); })) {
        return *error;
    }
    if (auto error = forEachRow(database,
                                "SELECT row, path, stamps, digest, identifier, version, displayName, shortName, "
                                "entitlements, refusal, remark, identity FROM bundle ORDER BY row",
                                [&](const Statement& row) { return readBundle(row, contents); })) {
        return *error;
    }
    // Both in the order of their rows, so that a plug-in's bundle is found by walking on.
    std::size_t at = 0;
    if (auto error = forEachRow(database,
                                "SELECT row, uuid, identifier, registered, extensionPoint, pointNames, anyPoint, sdk "
                                "FROM plugin ORDER BY row",
                                [&](const Statement& row) {
                                    const std::int64_t bundle = row.number(0) / kPlugInsPerBundle;
                                    while (at < contents.bundles.size() && contents.bundles[at].second.row < bundle)
                                        ++at;
                                    if (at == contents.bundles.size() || contents.bundles[at].second.row != bundle)
                                        return false;
                                    return readPlugIn(row, contents.bundles[at].second);
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
        if (auto error = writeApplication(*application)) return error;
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

std::optional<value::Error> Store::writeApplication(const ApplicationRecord& application) {
    const ApplicationFacts& facts = application.facts();
    Statement& put = statements_->putApplication;
    put.bind(0, facts.row);
    put.bind(1, std::string_view{application.bundlePath()});
    put.bind(2, facts.containerPath);
    put.bind(3, facts.identifier);
    put.bind(4, facts.name);
    put.bind(5, bytesOf(facts.info));
    put.bind(6, bytesOf(facts.identity));
    return put.run();
}

std::optional<value::Error> Store::writeBundle(const BundleRecord& bundle) {
    const BundleFacts& facts = bundle.facts();
    Statement& put = statements_->putBundle;
    std::vector<std::byte> entitlements;
    if (!facts.entitlements.empty()) entitlements = encode(facts.entitlements);
    put.bind(0, facts.row);
    put.bind(1, std::string_view{bundle.path()});
    put.bind(2, bytesOf(facts.stamps));
    put.bind(3, static_cast<std::int64_t>(facts.digest));
    put.bind(4, std::string_view{facts.identifier});
    put.bind(5, std::string_view{facts.version});
    put.bind(6, facts.displayName);
    put.bind(7, facts.shortName);
    put.bind(8, entitlements);
    put.bind(9, std::string_view{facts.refusal});
    put.bind(10, std::string_view{facts.remark});
    put.bind(11, bytesOf(facts.identity));
    if (auto error = put.run()) return error;
    Statement& putPlugIn = statements_->putPlugIn;
    std::int64_t row = facts.row * kPlugInsPerBundle;
    for (const PlugInFacts& plugIn : facts.plugIns) {
        std::vector<std::byte> pointNames;
        if (!plugIn.pointNames.empty()) pointNames = encode(toArray(plugIn.pointNames));
        putPlugIn.bind(0, row++);
        putPlugIn.bind(1, std::as_bytes(std::span{plugIn.uuid.bytes()}));
        putPlugIn.bind(2, std::string_view{plugIn.identifier});
        putPlugIn.bind(3, plugIn.registered);
        putPlugIn.bind(4, plugIn.extensionPoint);
        putPlugIn.bind(5, pointNames);
        putPlugIn.bind(6, std::int64_t{plugIn.anyPoint});
        putPlugIn.bind(7, static_cast<std::int64_t>(plugIn.sdk.value_or(0)));
        if (auto error = putPlugIn.run()) return error;
    }
    return {};
}

}  // namespace dravo
