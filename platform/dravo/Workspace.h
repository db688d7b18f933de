#pragma once

#include <memory>

#include "platform/dravo/Dravo.h"
#include "platform/dravo/registrar/Registrar.h"

namespace dravo {

// A workspace that notices changes in the given way; DVApplicationWorkspace::open() takes the usual one.
value::Result<std::shared_ptr<DVApplicationWorkspace>> openWorkspace(const Noticing& noticing);

}  // namespace dravo
