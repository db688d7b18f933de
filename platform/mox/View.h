#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>

#include "platform/mox/Encoding.h"
#include "platform/value/Value.h"

// Mox values as they lie in a message: encoded bytes that were checked once, when they arrived or were made, and are
// read in place. doc/wire.md has the layout.
namespace mox {

using Bytes = std::span<const std::byte>;

// The kinds by their tag bytes. `message` is a property-list value in message form: its own encoding inside one more
// tag, which says that every kind in it is exact. `error` never travels: it stands for a connection that failed, and is
// made on this side only.
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

// One value inside checked bytes: a pointer, copied freely, valid while the bytes are (the Object that owns them
// lives). Typed reads answer "absent" for another kind. Nothing is allocated but by toValue() and error().
class View {
public:
    // Takes bytes that check() has accepted, or that Encoder wrote.
    explicit View(const std::byte* at) : at_{at} {}

    Kind kind() const { return static_cast<Kind>(*at_); }
    const std::byte* bytes() const { return at_; }
    std::size_t size() const;  // of the whole encoded value, tag included
    Bytes encoded() const { return {at_, size()}; }

    std::optional<bool> boolean() const;
    std::optional<std::int64_t> signedInteger() const;
    std::optional<std::uint64_t> unsignedInteger() const;
    std::optional<double> real() const;
    std::optional<std::string_view> string() const;
    std::optional<Bytes> data() const;
    std::optional<value::Date> date() const;
    std::optional<value::Uuid> uuid() const;
    std::optional<value::Error> error() const;
    std::optional<View> message() const;                                          // the value inside a message form
    View plain() const { return View{kind() == Kind::message ? at_ + 1 : at_}; }  // that, or this

    bool isArray() const { return kind() == Kind::array; }
    bool isDictionary() const { return kind() == Kind::dictionary; }

    std::size_t count() const;                             // elements or entries; 0 for other kinds
    std::optional<View> find(std::string_view key) const;  // in a dictionary; walks the entries

    // Visits the elements of an array, `visit(View element)`, or the entries of a dictionary, `visit(std::string_view
    // key, View value)`, in their order. A visitor that returns bool ends the visit with false. Other kinds have
    // nothing to visit. Answers whether all were visited.
    template <typename Visitor>
    bool forEachElement(Visitor&& visit) const;
    template <typename Visitor>
    bool forEachEntry(Visitor&& visit) const;

    // The property-list value that this stands for (the reverse plain conversion; a message form gives what is in it).
    value::Value toValue() const;

private:
    template <typename Number>
    std::optional<Number> number(Kind wanted) const {
        if (kind() != wanted) return {};
        return encoding::load<Number>(at_ + encoding::kTagSize);
    }
    std::size_t length() const { return encoding::load<std::uint32_t>(at_ + encoding::kTagSize); }
    const std::byte* contents() const { return at_ + encoding::kContainerHeader; }

    template <typename Visitor, typename... Args>
    static bool goesOn(Visitor& visit, Args... args) {
        if constexpr (std::is_same_v<std::invoke_result_t<Visitor&, Args...>, bool>) {
            return visit(args...);
        } else {
            visit(args...);
            return true;
        }
    }

    const std::byte* at_;
};

inline std::size_t View::size() const {
    const std::byte* at = at_;
    std::size_t outside = 0;
    if (kind() == Kind::message) {  // never inside another
        ++at;
        ++outside;
    }
    switch (static_cast<Kind>(*at)) {
        case Kind::boolean: return outside + 2;
        case Kind::signedInteger:
        case Kind::unsignedInteger:
        case Kind::real:
        case Kind::date: return outside + 9;
        case Kind::uuid: return outside + 17;
        default: return outside + 5 + encoding::load<std::uint32_t>(at + encoding::kTagSize);
    }
}

inline std::optional<bool> View::boolean() const {
    if (kind() != Kind::boolean) return {};
    return at_[1] != std::byte{0};
}
inline std::optional<std::int64_t> View::signedInteger() const {
    return number<std::int64_t>(Kind::signedInteger);
}
inline std::optional<std::uint64_t> View::unsignedInteger() const {
    return number<std::uint64_t>(Kind::unsignedInteger);
}
inline std::optional<double> View::real() const {
    return number<double>(Kind::real);
}

inline std::optional<std::string_view> View::string() const {
    if (kind() != Kind::string) return {};
    // Bytes may be looked at as characters.
    return std::string_view{reinterpret_cast<const char*>(at_ + 5), length()};
}

inline std::optional<Bytes> View::data() const {
    if (kind() != Kind::data) return {};
    return Bytes{at_ + 5, length()};
}

inline std::optional<View> View::message() const {
    if (kind() != Kind::message) return {};
    return View{at_ + 1};
}

inline std::size_t View::count() const {
    if (!isArray() && !isDictionary()) return 0;
    return encoding::load<std::uint32_t>(at_ + encoding::kTagSize + encoding::kLengthSize);
}

template <typename Visitor>
bool View::forEachElement(Visitor&& visit) const {
    if (!isArray()) return true;
    const std::byte* at = contents();
    for (std::size_t left = count(); left > 0; --left) {
        const View element{at};
        at += element.size();
        if (!goesOn(visit, element)) return false;
    }
    return true;
}

template <typename Visitor>
bool View::forEachEntry(Visitor&& visit) const {
    if (!isDictionary()) return true;
    const std::byte* at = contents();
    for (std::size_t left = count(); left > 0; --left) {
        const std::size_t keyLength = encoding::load<std::uint32_t>(at);
        const std::string_view key{reinterpret_cast<const char*>(at + encoding::kLengthSize), keyLength};
        const View value{at + encoding::kLengthSize + keyLength};
        at = value.at_ + value.size();
        if (!goesOn(visit, key, value)) return false;
    }
    return true;
}

}  // namespace mox
