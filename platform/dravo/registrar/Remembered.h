#pragma once

#include <memory>

#include "platform/dravo/records/ExtensionPoints.h"
#include "platform/dravo/records/Snapshot.h"
#include "platform/dravo/store/Store.h"

namespace dravo {

// What the store remembers, as the snapshot that the first look at the disk is compared with. A bundle gets the
// innermost application that is remembered around it.
std::shared_ptr<const Snapshot> remembered(Store::Contents&& contents,
                                           const std::shared_ptr<Surroundings>& surroundings, SdkParts& sdks);

}  // namespace dravo
