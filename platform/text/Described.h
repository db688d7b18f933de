#pragma once

#include <concepts>
#include <string>

#include "platform/text/Format.h"

// Lets every object with a description stand for "{}" in a format. The description is made when the text is, so that
// an object handed to a log call that is not written costs nothing.
namespace text {

template <typename T>
concept DescribesItself = requires(const T& object) {
    { object.description() } -> std::convertible_to<std::string>;
};

template <typename T>
concept HasDescription = requires(const T& object) {
    { description(object) } -> std::convertible_to<std::string>;
};

}  // namespace text

template <typename T>
requires text::DescribesItself<T> || text::HasDescription<T>
struct fmt::formatter<T, char> : fmt::formatter<std::string, char> {
    template <typename Context>
    auto format(const T& object, Context& context) const {
        if constexpr (text::DescribesItself<T>) {
            return fmt::formatter<std::string, char>::format(object.description(), context);
        } else {
            return fmt::formatter<std::string, char>::format(description(object), context);
        }
    }
};
