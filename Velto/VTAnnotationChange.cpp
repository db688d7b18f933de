#include "Velto/VTAnnotationChange.h"

#include <utility>

#include "Velto/VTProtocol.h"

std::unique_ptr<notify::Observer> VTObserveAnnotationChanges(const std::shared_ptr<queue::SerialQueue>& queue,
                                                             std::function<void(std::uint64_t changes)> handler) {
    return notify::observe(VTAnnotationChangeNotification, queue, std::move(handler));
}
