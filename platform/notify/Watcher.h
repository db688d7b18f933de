#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/file/UniqueFd.h"
#include "platform/queue/Reactor.h"
#include "platform/queue/SerialQueue.h"

namespace notify {

// Watches the directory of the counters, once for all observers of a process: the kernel's watch instances are few.
// The directory is watched and not the files, so that a deleted counter's successor is noticed.
//
// Threading: any thread. Subscribers are told on the watcher's own queue and must be quick.
class Watcher : public std::enable_shared_from_this<Watcher> {
public:
    // The one of a directory, made when there is none; null, with errno set, when it cannot be watched.
    static std::shared_ptr<Watcher> of(const std::string& directory);

    explicit Watcher(std::string directory);  // for of()

    class Subscriber {
    public:
        virtual ~Subscriber() = default;
        virtual void fileChanged() = 0;
    };
    // From now on the subscriber is told, while it lives, whenever the file of that name may have changed.
    void subscribe(const std::string& fileName, std::weak_ptr<Subscriber> subscriber);

private:
    bool start();
    bool watchDirectory();
    void readEvents();
    void handle(std::uint32_t mask, const std::string& fileName);
    void tell(const std::string* fileName);  // null: all

    const std::string directory_;
    const std::shared_ptr<queue::SerialQueue> queue_;
    file::UniqueFd inotify_;
    std::unique_ptr<queue::Watch> watch_;
    int directoryWatch_ = -1;  // on the queue, once started

    std::mutex mutex_;
    std::unordered_multimap<std::string, std::weak_ptr<Subscriber>> subscribers_;  // under the lock
};

}  // namespace notify
