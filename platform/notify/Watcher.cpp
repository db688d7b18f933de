#include "platform/notify/Watcher.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <utility>

#include "platform/logging/Log.h"
#include "platform/text/Format.h"
#include "platform/value/Error.h"

namespace notify {

namespace {

constexpr std::uint32_t kEvents =
    IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

}  // namespace

std::shared_ptr<Watcher> Watcher::of(const std::string& directory) {
    static std::mutex& mutex = *new std::mutex;
    static auto& watchers = *new std::map<std::string, std::weak_ptr<Watcher>>;
    const std::lock_guard lock{mutex};
    std::weak_ptr<Watcher>& kept = watchers[directory];
    if (auto watcher = kept.lock()) return watcher;
    auto watcher = std::make_shared<Watcher>(directory);
    if (!watcher->start()) return nullptr;
    kept = watcher;
    return watcher;
}

Watcher::Watcher(std::string directory)
    : directory_{std::move(directory)}, queue_{std::make_shared<queue::SerialQueue>("notify")} {}

void Watcher::subscribe(const std::string& fileName, std::weak_ptr<Subscriber> subscriber) {
    const std::lock_guard lock{mutex_};
    std::erase_if(subscribers_, [](const auto& entry) { return entry.second.expired(); });
    subscribers_.emplace(fileName, std::move(subscriber));
}

bool Watcher::start() {
    inotify_ = file::UniqueFd{inotify_init1(IN_NONBLOCK | IN_CLOEXEC)};
    if (!inotify_ || !watchDirectory()) return false;
    watch_ = queue::watch(inotify_.get(), queue_, [weak = weak_from_this()](std::uint32_t) {
        if (const auto watcher = weak.lock()) watcher->readEvents();
    });
    return watch_ != nullptr;
}

bool Watcher::watchDirectory() {
    directoryWatch_ = inotify_add_watch(inotify_.get(), directory_.c_str(), kEvents);
    return directoryWatch_ >= 0;
}

void Watcher::readEvents() {
    alignas(inotify_event) std::array<char, 16384> buffer;
    for (;;) {
        const ssize_t size = read(inotify_.get(), buffer.data(), buffer.size());
        if (size < 0 && errno == EINTR) continue;
        if (size <= 0) return;
        for (std::size_t at = 0; at < static_cast<std::size_t>(size);) {
            inotify_event event;
            std::memcpy(&event, buffer.data() + at, sizeof event);
            const std::string fileName{event.len > 0 ? buffer.data() + at + sizeof event : ""};
            at += sizeof event + event.len;
            handle(event.mask, fileName);
        }
    }
}

void Watcher::handle(std::uint32_t mask, const std::string& fileName) {
    if ((mask & IN_Q_OVERFLOW) != 0) {
        tell(nullptr);
    } else if ((mask & IN_MOVE_SELF) != 0) {
        inotify_rm_watch(inotify_.get(), directoryWatch_);  // answered by IN_IGNORED
    } else if ((mask & IN_IGNORED) != 0) {
        // Deleted or moved away. It is made again, but not what is above it: that went on purpose.
        mkdir(directory_.c_str(), 0700);
        if (!watchDirectory()) {
            logging::error(text::format("notifications in {} are no longer observed: {}", directory_,
                                        value::posixError(errno, "watching").localizedDescription()));
        }
        tell(nullptr);
    } else {
        tell(&fileName);
    }
}

void Watcher::tell(const std::string* fileName) {
    std::vector<std::shared_ptr<Subscriber>> concerned;
    {
        const std::lock_guard lock{mutex_};
        const auto [begin, end] = fileName == nullptr ? std::pair{subscribers_.begin(), subscribers_.end()}
                                                      : subscribers_.equal_range(*fileName);
        for (auto entry = begin; entry != end; ++entry) {
            if (auto subscriber = entry->second.lock()) concerned.push_back(std::move(subscriber));
        }
    }
    for (const auto& subscriber : concerned) subscriber->fileChanged();
}

}  // namespace notify
