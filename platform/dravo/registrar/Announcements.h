#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "platform/dravo/Dravo.h"
#include "platform/queue/SerialQueue.h"

namespace dravo {

// Tells the observers, on the registry's queue and without a lock. What is announced before there ever was an observer
// waits for the first.
class Announcements : public std::enable_shared_from_this<Announcements> {
public:
    explicit Announcements(std::shared_ptr<queue::SerialQueue> queue) : queue_{std::move(queue)} {}

    void addObserver(const std::shared_ptr<DVWorkspaceObserver>& observer);  // any thread

    // On the queue; both return when every observer has returned.
    void willUninstall(PluginList plugins);
    void didInstall(PluginList plugins);

private:
    enum class Event : std::uint8_t { willUninstall, didInstall };
    struct Announcement {
        Event event;
        PluginList plugins;
    };
    using Observers = std::vector<std::shared_ptr<DVWorkspaceObserver>>;

    void announce(Announcement announcement);
    void deliverWaiting(const Observers& observers);
    Observers observers();

    const std::shared_ptr<queue::SerialQueue> queue_;
    std::vector<Announcement> waiting_;  // of the queue
    std::mutex mutex_;
    bool observed_ = false;                                      // under the mutex
    std::vector<std::weak_ptr<DVWorkspaceObserver>> observers_;  // under the mutex
};

}  // namespace dravo
