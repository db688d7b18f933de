#include "platform/dravo/store/Database.h"

#include <cerrno>

#include <sqlite3.h>

#include "platform/file/File.h"

namespace dravo {

namespace {

constexpr int kOneMebibyte = 1024;  // of page cache, in KiB

// The write-ahead log makes a commit one append; synced in full, because an answer "registered" follows it. The
// exclusive mode does without the shared-memory file: the state directory's lock keeps others out.
constexpr char kSettings[] =
    "PRAGMA locking_mode = EXCLUSIVE;"
    "PRAGMA journal_mode = WAL;"
    "PRAGMA synchronous = FULL;"
    "PRAGMA cell_size_check = ON;"
    "PRAGMA trusted_schema = OFF;";

// Pages are allocated as they are needed. By default each transaction would begin with 20 of them at once, which is
// what a save of one row takes several times over.
void allocatePagesOneByOne() {
    [[maybe_unused]] static const int done = sqlite3_config(SQLITE_CONFIG_PAGECACHE, nullptr, 0, 0);
}

value::Error makeError(sqlite3* connection, int code, const std::string& what) {
    const bool damaged = code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
    std::string text = what + ": " + (connection ? sqlite3_errmsg(connection) : sqlite3_errstr(code));
    if (code == SQLITE_CANTOPEN || code == SQLITE_READONLY) {
        const char* const path = connection ? sqlite3_db_filename(connection, "main") : nullptr;
        text += std::string{"; let this user read and write "} + (path ? path : "that file") + " and its directory";
    }
    return {"dravo.store", static_cast<std::int64_t>(damaged ? StoreTrouble::damaged : StoreTrouble::failed), text};
}

}  // namespace

void Database::Close::operator()(sqlite3* connection) const {
    sqlite3_close_v2(connection);
}

value::Result<Database> Database::open(const std::string& path) {
    allocatePagesOneByOne();
    // NOFOLLOW refuses a link anywhere in the path. It is meant for the file; how its directory is reached is for
    // whoever set the directory up.
    const std::size_t name = path.rfind('/') + 1;
    const auto directory = file::canonicalPath(name > 0 ? path.substr(0, name) : ".");
    if (!directory) return value::posixError(errno, "cannot open " + path + ": make its directory reachable");
    const std::string resolved = *directory + "/" + path.substr(name);
    sqlite3* connection = nullptr;
    constexpr int kFlags =
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_EXRESCODE;
    const int code = sqlite3_open_v2(resolved.c_str(), &connection, kFlags, nullptr);
    Database database{connection};
    if (code != SQLITE_OK) return makeError(connection, code & 0xff, "cannot open " + path);
    if (auto error = database.execute(kSettings)) return *error;
    const std::string cache = "PRAGMA cache_size = -" + std::to_string(kOneMebibyte);
    if (auto error = database.execute(cache.c_str())) return *error;
    return database;
}

value::Error Database::error(const std::string& what) const {
    return makeError(connection_.get(), sqlite3_errcode(connection_.get()) & 0xff, what);
}

std::optional<value::Error> Database::execute(const char* sql) {
    if (sqlite3_exec(connection_.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK) return {};
    return error("registry store");
}

value::Result<std::int64_t> Database::number(const char* sql) {
    auto statement = Statement::prepare(*this, sql);
    if (!statement) return statement.error();
    const auto row = statement->step();
    if (!row) return row.error();
    return *row ? statement->number(0) : std::int64_t{0};
}

void Database::releaseMemory() {
    sqlite3_db_release_memory(connection_.get());
}

void Statement::Finalize::operator()(sqlite3_stmt* statement) const {
    sqlite3_finalize(statement);
}

value::Result<Statement> Statement::prepare(Database& database, const char* sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(database.connection_.get(), sql, -1, &statement, nullptr) != SQLITE_OK) {
        return database.error("registry store");
    }
    return Statement{database, statement};
}

// A failed bind (out of memory, a text of gigabytes) leaves NULL, which a NOT NULL column then refuses.
void Statement::bind(int parameter, std::int64_t number) {
    sqlite3_bind_int64(statement_.get(), parameter + 1, number);
}

void Statement::bind(int parameter, double number) {
    sqlite3_bind_double(statement_.get(), parameter + 1, number);
}

void Statement::bind(int parameter, std::string_view text) {
    sqlite3_bind_text64(statement_.get(), parameter + 1, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

void Statement::bind(int parameter, const std::optional<std::string>& text) {
    if (text) {
        bind(parameter, std::string_view{*text});
    } else {
        sqlite3_bind_null(statement_.get(), parameter + 1);
    }
}

void Statement::bind(int parameter, std::span<const std::byte> bytes) {
    sqlite3_bind_blob64(statement_.get(), parameter + 1, bytes.data(), bytes.size(), SQLITE_STATIC);
}

value::Result<bool> Statement::step() {
    const int code = sqlite3_step(statement_.get());
    if (code == SQLITE_ROW) return true;
    if (code == SQLITE_DONE) return false;
    return database_->error("registry store");
}

std::optional<value::Error> Statement::run() {
    const auto row = step();
    sqlite3_reset(statement_.get());
    if (!row) return row.error();
    return {};
}

std::int64_t Statement::number(int column) const {
    return sqlite3_column_int64(statement_.get(), column);
}

std::optional<std::int64_t> Statement::optionalNumber(int column) const {
    if (sqlite3_column_type(statement_.get(), column) == SQLITE_NULL) return {};
    return number(column);
}

double Statement::real(int column) const {
    return sqlite3_column_double(statement_.get(), column);
}

std::string Statement::text(int column) const {
    const void* const bytes = sqlite3_column_blob(statement_.get(), column);
    const auto length = static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column));
    return bytes ? std::string{static_cast<const char*>(bytes), length} : std::string{};
}

std::optional<std::string> Statement::optionalText(int column) const {
    if (sqlite3_column_type(statement_.get(), column) == SQLITE_NULL) return {};
    return text(column);
}

std::span<const std::byte> Statement::bytes(int column) const {
    const void* const bytes = sqlite3_column_blob(statement_.get(), column);
    const auto length = static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column));
    return {static_cast<const std::byte*>(bytes), bytes ? length : 0};
}

}  // namespace dravo
