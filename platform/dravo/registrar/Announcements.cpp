#include "platform/dravo/registrar/Announcements.h"

#include <utility>

namespace dravo {

void Announcements::addObserver(const std::shared_ptr<DVWorkspaceObserver>& observer) {
    bool isFirst = false;
    {
        const std::lock_guard lock{mutex_};
        isFirst = !std::exchange(observed_, true);
        observers_.emplace_back(observer);
    }
    if (!isFirst) return;
    queue_->async([weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->deliverWaiting(self->observers());
    });
}

void Announcements::willUninstall(PluginList plugins) {
    announce({Event::willUninstall, std::move(plugins)});
}

void Announcements::didInstall(PluginList plugins) {
    announce({Event::didInstall, std::move(plugins)});
}

void Announcements::announce(Announcement announcement) {
    if (announcement.plugins.empty()) return;
    waiting_.push_back(std::move(announcement));
    {
        const std::lock_guard lock{mutex_};
        if (!observed_) return;
    }
    deliverWaiting(observers());
}

void Announcements::deliverWaiting(const Observers& observers) {
    for (const auto& [event, plugins] : std::exchange(waiting_, {})) {
        for (const auto& observer : observers) {
            if (event == Event::willUninstall) {
                observer->pluginsWillUninstall(plugins);
            } else {
                observer->pluginsDidInstall(plugins);
            }
        }
    }
}

Announcements::Observers Announcements::observers() {
    Observers living;
    const std::lock_guard lock{mutex_};
    std::erase_if(observers_, [&](const std::weak_ptr<DVWorkspaceObserver>& observer) {
        if (auto alive = observer.lock()) living.push_back(std::move(alive));
        return observer.expired();
    });
    return living;
}

}  // namespace dravo
