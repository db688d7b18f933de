#include "platform/activity/Activity.h"

#include <atomic>

namespace activity {

namespace {

std::atomic<std::size_t> open{0};

}  // namespace

Activity::Activity() {
    open.fetch_add(1, std::memory_order_relaxed);
}

Activity::~Activity() {
    open.fetch_sub(1, std::memory_order_relaxed);
}

std::size_t count() {
    return open.load(std::memory_order_relaxed);
}

}  // namespace activity
