#pragma once

#include <optional>

#include "platform/value/Error.h"

namespace readiness {

// Tells the service manager that started this process, by the datagram socket that NOTIFY_SOCKET names, that the
// service is up: "READY=1". Nothing to do, and no error, when nobody asked to be told. Never blocks.
[[nodiscard]] std::optional<value::Error> announce();

}  // namespace readiness
