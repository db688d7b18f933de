#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/queue/SerialQueue.h"
#include "platform/value/Error.h"

// System notifications by name: a counter in notify/<name> of the runtime directory, raised under a lock by each post
// and watched by observers in any process. They carry nothing but that something happened.
namespace notify {

// Posts once, or many times for the price of one: observers cannot tell that from as many calls. While another process
// keeps the counter's lock the posts are owed, and made as soon as it can be had: the first of them waits 20 ms or so,
// the others not at all. Failures are returned, not fatal. Any thread.
[[nodiscard]] std::optional<value::Error> post(const std::string& name, std::uint64_t times = 1);

// For a process that is about to end: tries to make the posts that it owes for that long. Whether it owes none any
// more.
bool settlePosts(std::chrono::milliseconds patience);

// Calls the handler on the queue after each post, with how many posts happened since the last call (never 0): none is
// lost, several may be told at once. A counter that was deleted, replaced or spoilt meanwhile counts on from there.
// Null, after a log line, when the file cannot be watched.
//
// Ownership: destroying the observer ends it; a handler that already runs is not waited for. The handler may do so.
class Observer {
public:
    virtual ~Observer() = default;
};
std::unique_ptr<Observer> observe(const std::string& name, const std::shared_ptr<queue::SerialQueue>& queue,
                                  std::function<void(std::uint64_t posts)> handler);

}  // namespace notify
