#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/queue/WatchState.h"

namespace queue {

// Finds the watch that an event is for. Events carry an id, not an address: the kernel may hand out an event just
// before its watch goes, and the id then finds nothing. An id is a slot and the slot's generation, so it is not given
// twice before the slot has been used four billion times. Every member may be called from any thread.
class WatchTable {
public:
    static constexpr std::uint64_t kNoWatch = 0xffff'ffff'0000'0000;  // ids from here on are never given

    std::uint64_t add(std::shared_ptr<WatchState> watch);
    void remove(std::uint64_t id);
    std::shared_ptr<WatchState> find(std::uint64_t id);  // null when it has gone

private:
    struct Slot {
        std::uint32_t generation = 0;
        std::shared_ptr<WatchState> watch;
    };

    std::mutex mutex_;
    std::vector<Slot> slots_;
    std::vector<std::uint32_t> free_;
};

}  // namespace queue
