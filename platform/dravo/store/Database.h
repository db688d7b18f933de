#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/value/Error.h"

struct sqlite3;
struct sqlite3_stmt;

namespace dravo {

// What went wrong with the store's file: error codes of the domain "dravo.store".
enum class StoreTrouble : std::int64_t {
    failed = 1,    // the file system said no; the file may be sound
    damaged = 2,   // not a database, or one that does not hold together
    otherKind = 3  // sound, but not of the version that is written here
};

// An SQLite database of this process's own. One thread at a time.
class Database {
public:
    // Makes the file (0600) when it is missing. Readers never see half a transaction, however the process ends.
    static value::Result<Database> open(const std::string& path);

    [[nodiscard]] std::optional<value::Error> execute(const char* sql);
    value::Result<std::int64_t> number(const char* sql);  // the first column of the first row
    void releaseMemory();

private:
    friend class Statement;
    struct Close {
        void operator()(sqlite3* connection) const;
    };
    explicit Database(sqlite3* connection) : connection_{connection} {}
    value::Error error(const std::string& what) const;

    std::unique_ptr<sqlite3, Close> connection_;
};

// A prepared statement. Texts and bytes bound to it must live until it has run; parameters and columns count from 0.
class Statement {
public:
    static value::Result<Statement> prepare(Database& database, const char* sql);

    void bind(int parameter, std::int64_t number);
    void bind(int parameter, double number);
    void bind(int parameter, std::string_view text);
    void bind(int parameter, const std::optional<std::string>& text);
    void bind(int parameter, std::span<const std::byte> bytes);

    value::Result<bool> step();                       // whether there is a row
    [[nodiscard]] std::optional<value::Error> run();  // a statement without rows, made ready for the next run

    std::int64_t number(int column) const;
    std::optional<std::int64_t> optionalNumber(int column) const;
    double real(int column) const;
    std::string text(int column) const;  // empty when there is none
    std::optional<std::string> optionalText(int column) const;
    std::span<const std::byte> bytes(int column) const;  // until the next step

private:
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const;
    };
    Statement(Database& database, sqlite3_stmt* statement) : database_{&database}, statement_{statement} {}

    Database* database_;
    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

}  // namespace dravo
