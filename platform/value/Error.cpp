#include "platform/value/Error.h"

#include <system_error>

namespace value {

std::string Error::localizedDescription() const {
    if (message) return *message;
    return domain + " error " + std::to_string(code);
}

Error posixError(int errorNumber, const std::string& what) {
    return {"posix", errorNumber, what + ": " + std::generic_category().message(errorNumber)};
}

}  // namespace value
