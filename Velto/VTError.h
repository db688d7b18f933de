#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "platform/text/Format.h"
#include "platform/value/Error.h"

// The domain of every error that this system makes itself. Codes are those of VTErrorCode.
inline constexpr char VTErrorDomain[] = "Velto";

// An error of the domain "Velto"; without a message it has no localized description of its own.
value::Error VTError(std::int64_t code, std::optional<std::string> message = std::nullopt);

// The same with a message made from a format.
template <typename... Args>
value::Error VTErrorWithFormat(std::int64_t code, fmt::format_string<Args...> pattern, Args&&... args) {
    return VTError(code, text::format(pattern, std::forward<Args>(args)...));
}
