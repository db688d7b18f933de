#include "platform/queue/WatchTable.h"

#include <utility>

#include "platform/logging/Invariant.h"

namespace queue {
namespace {

constexpr unsigned kSlotShift = 32;

std::uint32_t slotOf(std::uint64_t id) {
    return static_cast<std::uint32_t>(id >> kSlotShift);
}

}  // namespace

std::uint64_t WatchTable::add(std::shared_ptr<WatchState> watch) {
    const std::lock_guard lock{mutex_};
    if (free_.empty()) {
        free_.push_back(static_cast<std::uint32_t>(slots_.size()));
        slots_.emplace_back();
    }
    const std::uint32_t index = free_.back();
    free_.pop_back();
    Slot& slot = slots_[index];
    slot.watch = std::move(watch);
    return std::uint64_t{index} << kSlotShift | slot.generation;
}

void WatchTable::remove(std::uint64_t id) {
    std::shared_ptr<WatchState> removed;  // goes after the lock has
    const std::lock_guard lock{mutex_};
    Slot& slot = slots_[slotOf(id)];
    INVARIANT(slot.watch && slot.generation == static_cast<std::uint32_t>(id));  // removed once
    removed = std::move(slot.watch);
    ++slot.generation;
    free_.push_back(slotOf(id));
}

std::shared_ptr<WatchState> WatchTable::find(std::uint64_t id) {
    const std::lock_guard lock{mutex_};
    const Slot& slot = slots_[slotOf(id)];
    return slot.generation == static_cast<std::uint32_t>(id) ? slot.watch : nullptr;
}

}  // namespace queue
