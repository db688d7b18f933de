#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/dravo/records/Facts.h"
#include "platform/dravo/store/Database.h"
#include "platform/value/Uuid.h"
#include "platform/value/Value.h"

// How a fact stands in the store, by its type: what its column is declared as, how it is bound to a statement, and how
// it is read back. Reading answers false for what makes no sense, and leaves the fact as it was.
namespace dravo::cells {

// What was encoded for one row. It and the facts must live until the statement has run.
using Kept = std::vector<std::vector<std::byte>>;

template <typename Fact>
inline constexpr const char* kDeclaration = nullptr;
template <>
inline constexpr const char* kDeclaration<std::string> = "TEXT NOT NULL";
template <>
inline constexpr const char* kDeclaration<std::optional<std::string>> = "TEXT";
template <>
inline constexpr const char* kDeclaration<double> = "REAL NOT NULL";
template <>
inline constexpr const char* kDeclaration<bool> = "INTEGER NOT NULL";
template <>
inline constexpr const char* kDeclaration<std::uint64_t> = "INTEGER NOT NULL";  // a digest
template <>
inline constexpr const char* kDeclaration<std::optional<std::uint64_t>> = "INTEGER";
template <>
inline constexpr const char* kDeclaration<value::Uuid> = "BLOB NOT NULL";
template <>
inline constexpr const char* kDeclaration<file::Stamp> = "BLOB NOT NULL";
template <>
inline constexpr const char* kDeclaration<BundleStamps> = "BLOB NOT NULL";
template <>
inline constexpr const char* kDeclaration<file::Identity> = "BLOB";  // NULL or empty: unknown
template <>
inline constexpr const char* kDeclaration<value::Dictionary> = "BLOB";  // NULL: empty
template <>
inline constexpr const char* kDeclaration<std::vector<std::string>> = "BLOB";  // likewise

// Of the types above, and of no others.
template <typename Fact>
void bind(Statement& statement, int parameter, const Fact& fact, Kept& kept);
template <typename Fact>
bool read(const Statement& row, int column, Fact& fact);

}  // namespace dravo::cells
