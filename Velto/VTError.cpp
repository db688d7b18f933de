#include "Velto/VTError.h"

value::Error VTError(std::int64_t code, std::optional<std::string> message) {
    return value::Error{VTErrorDomain, code, std::move(message)};
}
