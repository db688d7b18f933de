#include "platform/dravo/store/Cells.h"

#include <cstring>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>

#include "platform/mox/Encoder.h"
#include "platform/mox/Object.h"

namespace dravo::cells {

namespace {

constexpr mox::Limits kValueLimits{std::size_t{64} << 20, 128, 4'000'000};

template <typename T>
std::span<const std::byte> bytesOf(const T& object) {
    static_assert(std::is_trivially_copyable_v<T> && std::has_unique_object_representations_v<T>);
    return std::as_bytes(std::span{&object, 1});
}

template <typename T>
bool copy(std::span<const std::byte> bytes, T& object) {
    if (bytes.size() != sizeof(T)) return false;
    std::memcpy(&object, bytes.data(), sizeof(T));
    return true;
}

void bindEncoded(Statement& statement, int parameter, const value::Value& value, Kept& kept) {
    mox::Encoder encoder;
    encoder.value(value);
    statement.bind(parameter, kept.emplace_back(encoder.take()));
}

std::optional<value::Value> decode(std::span<const std::byte> bytes) {
    const auto object = mox::Object::decode({bytes.begin(), bytes.end()}, kValueLimits);
    if (!object) return {};
    return object->view().toValue();
}

}  // namespace

template <>
void bind(Statement& statement, int parameter, const std::string& fact, Kept& /*kept*/) {
    statement.bind(parameter, std::string_view{fact});
}
template <>
bool read(const Statement& row, int column, std::string& fact) {
    fact = row.text(column);
    return true;
}

template <>
void bind(Statement& statement, int parameter, const std::optional<std::string>& fact, Kept& /*kept*/) {
    statement.bind(parameter, fact);
}
template <>
bool read(const Statement& row, int column, std::optional<std::string>& fact) {
    fact = row.optionalText(column);
    return true;
}

template <>
void bind(Statement& statement, int parameter, const double& fact, Kept& /*kept*/) {
    statement.bind(parameter, fact);
}
template <>
bool read(const Statement& row, int column, double& fact) {
    fact = row.real(column);
    return true;
}

template <>
void bind(Statement& statement, int parameter, const bool& fact, Kept& /*kept*/) {
    statement.bind(parameter, std::int64_t{fact});
}
template <>
bool read(const Statement& row, int column, bool& fact) {
    fact = row.number(column) != 0;
    return true;
}

template <>
void bind(Statement& statement, int parameter, const std::uint64_t& fact, Kept& /*kept*/) {
    statement.bind(parameter, static_cast<std::int64_t>(fact));
}
template <>
bool read(const Statement& row, int column, std::uint64_t& fact) {
    fact = static_cast<std::uint64_t>(row.number(column));
    return true;
}

template <>
void bind(Statement& statement, int parameter, const std::optional<std::uint64_t>& fact, Kept& /*kept*/) {
    if (!fact) return statement.bind(parameter, std::optional<std::string>{});
    statement.bind(parameter, static_cast<std::int64_t>(*fact));
}
template <>
bool read(const Statement& row, int column, std::optional<std::uint64_t>& fact) {
    const auto number = row.optionalNumber(column);
    fact = number ? std::optional{static_cast<std::uint64_t>(*number)} : std::nullopt;
    return true;
}

template <>
void bind(Statement& statement, int parameter, const value::Uuid& fact, Kept& /*kept*/) {
    statement.bind(parameter, std::as_bytes(std::span{fact.bytes()}));
}
template <>
bool read(const Statement& row, int column, value::Uuid& fact) {
    value::Uuid::Bytes bytes;
    if (!copy(row.bytes(column), bytes)) return false;
    fact = value::Uuid{bytes};
    return true;
}

template <>
void bind(Statement& statement, int parameter, const file::Stamp& fact, Kept& /*kept*/) {
    statement.bind(parameter, bytesOf(fact));
}
template <>
bool read(const Statement& row, int column, file::Stamp& fact) {
    return copy(row.bytes(column), fact);
}

template <>
void bind(Statement& statement, int parameter, const BundleStamps& fact, Kept& /*kept*/) {
    statement.bind(parameter, bytesOf(fact));
}
template <>
bool read(const Statement& row, int column, BundleStamps& fact) {
    return copy(row.bytes(column), fact);
}

template <>
void bind(Statement& statement, int parameter, const file::Identity& fact, Kept& /*kept*/) {
    statement.bind(parameter, bytesOf(fact));
}
template <>
bool read(const Statement& row, int column, file::Identity& fact) {
    const auto bytes = row.bytes(column);
    return bytes.empty() || copy(bytes, fact);
}

template <>
void bind(Statement& statement, int parameter, const value::Dictionary& fact, Kept& kept) {
    if (fact.empty()) return statement.bind(parameter, std::span<const std::byte>{});
    bindEncoded(statement, parameter, fact, kept);
}
template <>
bool read(const Statement& row, int column, value::Dictionary& fact) {
    const auto bytes = row.bytes(column);
    if (bytes.empty()) return true;
    const auto value = decode(bytes);
    if (!value || !value->dictionary()) return false;
    fact = *value->dictionary();
    return true;
}

template <>
void bind(Statement& statement, int parameter, const std::vector<std::string>& fact, Kept& kept) {
    if (fact.empty()) return statement.bind(parameter, std::span<const std::byte>{});
    bindEncoded(statement, parameter, value::Array{value::Array::Storage{fact.begin(), fact.end()}}, kept);
}
template <>
bool read(const Statement& row, int column, std::vector<std::string>& fact) {
    const auto bytes = row.bytes(column);
    if (bytes.empty()) return true;
    const auto value = decode(bytes);
    if (!value || !value->array()) return false;
    for (const value::Value& element : *value->array()) {
        if (const std::string* const text = element.string()) fact.push_back(*text);
    }
    return true;
}

}  // namespace dravo::cells
