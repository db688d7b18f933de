#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "platform/value/Value.h"

// Mox values as they lie in a message: encoded bytes that were checked once, when they arrived or were made, and are
// read in place. doc/wire.md has the layout.
namespace mox {

using Bytes = std::span<const std::byte>;

// The kinds on the wire, by their tag bytes. `message` is a property-list value in message form: its own encoding
// inside one more tag, which says that every kind in it is exact.
enum class Kind : std::uint8_t {
    boolean = 1,
    signedInteger = 2,
    unsignedInteger = 3,
    real = 4,
    string = 5,
    data = 6,
    date = 7,
    array = 8,
    dictionary = 9,
    uuid = 10,
    error = 11,
    message = 12,
};

// One value inside checked bytes: two words, copied freely, valid while the bytes are (the Object that owns them
// lives). Typed reads answer "absent" for another kind. Reading allocates nothing but for toValue().
class View {
public:
    // Takes bytes that check() has accepted, or that Encoder wrote.
    explicit View(const std::byte* at) : at_{at} {}

    Kind kind() const { return static_cast<Kind>(*at_); }
    Bytes encoded() const;  // the whole value, tag included

    std::optional<bool> boolean() const;
    std::optional<std::int64_t> signedInteger() const;
    std::optional<std::uint64_t> unsignedInteger() const;
    std::optional<double> real() const;
    std::optional<std::string_view> string() const;
    std::optional<Bytes> data() const;
    std::optional<value::Date> date() const;
    std::optional<value::Uuid> uuid() const;
    std::optional<value::Error> error() const;
    std::optional<View> message() const;  // the value inside a message form

    bool isArray() const { return kind() == Kind::array; }
    bool isDictionary() const { return kind() == Kind::dictionary; }

    std::size_t count() const;                             // elements or entries; 0 for other kinds
    std::optional<View> find(std::string_view key) const;  // in a dictionary; walks the entries

    // Visits the elements of an array (element) or the entries of a dictionary (key, value) in their order; a visitor
    // that returns bool ends the visit with false. Other kinds have nothing to visit. Answers whether all were visited.
    template <typename Visitor>
    bool forEachElement(Visitor&& visit) const;
    template <typename Visitor>
    bool forEachEntry(Visitor&& visit) const;

    // The property-list value that this stands for (the reverse plain conversion; a message form gives what is in it).
    value::Value toValue() const;

private:
    const std::byte* at_;
};

}  // namespace mox
