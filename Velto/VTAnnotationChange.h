#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/notify/Notify.h"
#include "platform/queue/SerialQueue.h"

// Tells a host, on its queue, that holds or annotations have changed, so that it may ask again: with how many changes
// there were since it was last told. Destroying the observer ends it; null when the system cannot watch.
std::unique_ptr<notify::Observer> VTObserveAnnotationChanges(const std::shared_ptr<queue::SerialQueue>& queue,
                                                             std::function<void(std::uint64_t changes)> handler);
