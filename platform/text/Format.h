#pragma once

#include <string>
#include <utility>

#include <fmt/format.h>

// Text made from a format checked at compile time.
namespace text {

// The format, for functions that pass it on with its arguments.
template <typename... Args>
using Pattern = fmt::format_string<Args...>;

template <typename... Args>
std::string format(Pattern<Args...> pattern, Args&&... args) {
    return fmt::format(pattern, std::forward<Args>(args)...);
}

}  // namespace text
