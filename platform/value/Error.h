#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace value {

// An error as a value: who says so (the domain), which error it is there (the code) and, when there is something to
// tell a person, the localized description. The platform's own errors have the domain "posix" (the code is an errno) or
// the name of the service that made them ("plist", "mox", ...).
struct Error {
    std::string domain;
    std::int64_t code = 0;
    std::optional<std::string> message;

    // The message, else "DOMAIN error CODE": never empty.
    std::string localizedDescription() const;

    friend bool operator==(const Error&, const Error&) = default;
};

// An error of the domain "posix": "WHAT: text of the error number".
Error posixError(int errorNumber, const std::string& what);

// Either a T or the error that prevented it. Reading the one that is not there is a programming error.
template <typename T>
class [[nodiscard]] Result {
public:
    Result(T value) : content_{std::in_place_index<0>, std::move(value)} {}      // NOLINT(google-explicit-constructor)
    Result(Error error) : content_{std::in_place_index<1>, std::move(error)} {}  // NOLINT(google-explicit-constructor)

    bool ok() const { return content_.index() == 0; }
    explicit operator bool() const { return ok(); }

    T& operator*() & { return std::get<0>(content_); }
    const T& operator*() const& { return std::get<0>(content_); }
    T&& operator*() && { return std::get<0>(std::move(content_)); }
    T* operator->() { return &std::get<0>(content_); }
    const T* operator->() const { return &std::get<0>(content_); }

    const Error& error() const { return std::get<1>(content_); }

private:
    std::variant<T, Error> content_;
};

}  // namespace value
