#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/value/Error.h"
#include "platform/value/Uuid.h"

// The value model of every dictionary in the system: property-list values (boolean, integer, real, string, data, date,
// array, dictionary) and the two that only messages add (UUID, error).
//
// Values are immutable and cheap to copy: strings, data and containers are shared, so that handing a dictionary on
// costs a reference count. They may be read from any thread. What changes is built anew, by Dictionary::Builder or by
// the `changing` operations. Nothing here throws on account of what a value holds: a typed read answers "absent" for
// another kind.
namespace value {

class Value;

enum class Kind : std::uint8_t {
    boolean,
    signedInteger,
    unsignedInteger,
    real,
    string,
    data,
    date,
    array,
    dictionary,
    uuid,
    error
};

// A point in time, in seconds since 1970-01-01 00:00 universal time.
struct Date {
    double seconds = 0;
    friend bool operator==(const Date&, const Date&) = default;
};

using Data = std::vector<std::byte>;

class Array {
public:
    using Storage = std::vector<Value>;

    Array();
    explicit Array(Storage elements);
    Array(std::initializer_list<Value> elements);

    std::size_t size() const;
    bool empty() const { return size() == 0; }
    const Value& operator[](std::size_t index) const;
    const Value* begin() const;
    const Value* end() const;

    friend bool operator==(const Array& a, const Array& b);

private:
    std::shared_ptr<const Storage> storage_;
};

// Keys are unique and kept in ascending order of their bytes, so that equal content always reads, and is encoded,
// alike.
class Dictionary {
public:
    struct Entry;
    using Storage = std::vector<Entry>;
    class Builder;

    Dictionary();
    Dictionary(std::initializer_list<Entry> entries);  // a key given twice keeps its last value

    // Of entries in any order, in less than quadratic time; nothing when a key stands twice among them.
    static std::optional<Dictionary> ofUnique(Storage entries);

    std::size_t size() const;
    bool empty() const { return size() == 0; }
    const Value* find(std::string_view key) const;  // null when absent; valid while this dictionary, or a copy, lives
    bool contains(std::string_view key) const { return find(key) != nullptr; }

    // Typed reads: nothing when the key is absent or holds another kind.
    const std::string* string(std::string_view key) const;
    const Dictionary* dictionary(std::string_view key) const;
    const Array* array(std::string_view key) const;

    // A copy in which the key maps to the value; without a value, a copy without the key.
    Dictionary changing(std::string_view key, std::optional<Value> value) const;

    const Entry* begin() const;
    const Entry* end() const;

    // Whether both are the very same storage: true for a copy that nobody changed. Content may still be equal when not.
    bool isSameObject(const Dictionary& other) const { return storage_ == other.storage_; }

    friend bool operator==(const Dictionary& a, const Dictionary& b);

private:
    explicit Dictionary(Storage sorted);
    std::shared_ptr<const Storage> storage_;
};

class Value {
public:
    // Implicit, so that literals read as what they are: Dictionary{{"version", 16}, {"data", table}}.
    Value(bool v) : content_{v} {}                                                         // NOLINT
    Value(int v) : content_{static_cast<std::int64_t>(v)} {}                               // NOLINT
    Value(long v) : content_{static_cast<std::int64_t>(v)} {}                              // NOLINT
    Value(long long v) : content_{static_cast<std::int64_t>(v)} {}                         // NOLINT
    Value(unsigned v) : content_{static_cast<std::uint64_t>(v)} {}                         // NOLINT
    Value(unsigned long v) : content_{static_cast<std::uint64_t>(v)} {}                    // NOLINT
    Value(unsigned long long v) : content_{static_cast<std::uint64_t>(v)} {}               // NOLINT
    Value(double v) : content_{v} {}                                                       // NOLINT
    Value(std::string v) : content_{std::make_shared<const std::string>(std::move(v))} {}  // NOLINT
    Value(std::string_view v) : Value{std::string{v}} {}                                   // NOLINT
    Value(const char* v) : Value{std::string{v}} {}                                        // NOLINT
    Value(Data v) : content_{std::make_shared<const Data>(std::move(v))} {}                // NOLINT
    Value(Date v) : content_{v} {}                                                         // NOLINT
    Value(Array v) : content_{std::move(v)} {}                                             // NOLINT
    Value(Dictionary v) : content_{std::move(v)} {}                                        // NOLINT
    Value(Uuid v) : content_{v} {}                                                         // NOLINT
    Value(Error v) : content_{std::make_shared<const Error>(std::move(v))} {}              // NOLINT
    Value(const void*) = delete;                                                           // a pointer is no boolean

    Kind kind() const { return static_cast<Kind>(content_.index()); }

    // Typed reads: nothing for another kind. Pointers stay valid while this value, or a copy, lives.
    std::optional<bool> boolean() const;
    std::optional<std::int64_t> signedInteger() const;     // only what is stored as a signed integer
    std::optional<std::uint64_t> unsignedInteger() const;  // only what is stored as an unsigned integer
    std::optional<double> real() const;
    std::optional<Date> date() const;
    const std::string* string() const;
    const Data* data() const;
    const Array* array() const;
    const Dictionary* dictionary() const;
    const Uuid* uuid() const;
    const Error* error() const;

    // Whether this is a number: a boolean counts as one.
    bool isNumber() const { return kind() <= Kind::real; }
    bool isInteger() const { return kind() == Kind::signedInteger || kind() == Kind::unsignedInteger; }

    // The integer that a number, or a string's leading decimal digits, stand for; reals are cut towards zero, and what
    // does not fit takes the nearest end of the range. Nothing for every other kind.
    std::optional<std::int64_t> integerValue() const;

    // The truth of a number (not 0) or of a string ("1", "true", "yes" in any case, or a number that is not 0); false
    // for every other kind.
    bool booleanValue() const;

    // Numbers, booleans among them, compare by value across kinds; everything else within its own kind.
    friend bool operator==(const Value& a, const Value& b);

private:
    // In the order of Kind, which is read from the index.
    std::variant<bool, std::int64_t, std::uint64_t, double, std::shared_ptr<const std::string>,
                 std::shared_ptr<const Data>, Date, Array, Dictionary, Uuid, std::shared_ptr<const Error>>
        content_;
};

struct Dictionary::Entry {
    std::string key;
    Value value;
    friend bool operator==(const Entry&, const Entry&) = default;
};

// Collects the entries of a dictionary in any order; a key set twice keeps its last value. What comes in ascending
// order of the keys costs nothing extra, and any other order one sort, made when somebody looks: many entries are best
// set first and looked at afterwards. A builder belongs to one thread.
class Dictionary::Builder {
public:
    Builder() = default;
    explicit Builder(const Dictionary& start);

    void reserve(std::size_t count) { entries_.reserve(count); }
    void set(std::string_view key, Value value);
    void remove(std::string_view key);
    const Value* find(std::string_view key) const;  // valid until the next change
    bool contains(std::string_view key) const { return find(key) != nullptr; }
    std::size_t size() const;

    Dictionary build() const&;
    Dictionary build() &&;

private:
    void settle() const;

    mutable Storage entries_;         // those from sorted_ on in the order in which they came
    mutable std::size_t sorted_ = 0;  // how many at the front are in order, each key once
};

// The text that "%@" stands for in log lines and messages: strings as they are, numbers in decimal, booleans as 1 and
// 0, containers in braces and parentheses with their elements in order. Made for people, bounded in depth; not parsed
// back.
std::string description(const Value& value);

}  // namespace value
