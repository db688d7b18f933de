#pragma once

#include <string>
#include <utility>

#include <fmt/format.h>

// Text made from a format checked at compile time.
namespace text {

template <typename... Args>
std::string format(fmt::format_string<Args...> pattern, Args&&... args) {
    return fmt::format(pattern, std::forward<Args>(args)...);
}

}  // namespace text
