#include "platform/dravo/watch/Watcher.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace dravo {

namespace {

// A file replaced, written or made readable counts, and so does the directory itself going away.
constexpr std::uint32_t kEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ATTRIB |
                                  IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

// All that counts of a directory above; its entries may change all day. Does not narrow what it is watched for besides.
constexpr std::uint32_t kGoing = IN_MOVE_SELF | IN_DELETE_SELF | IN_ONLYDIR | IN_MASK_ADD;

constexpr std::size_t kBuffer = std::size_t{64} << 10;
constexpr int kTowardsTries = 16;  // a path whose steps appear while they are watched

void forEachAncestor(std::string path, const std::function<void(const std::string&)>& visit) {
    for (std::size_t slash = path.rfind('/'); slash != std::string::npos && slash > 0; slash = path.rfind('/')) {
        path.resize(slash);
        visit(path);
    }
}

}  // namespace

std::unique_ptr<Watcher> Watcher::create(const std::shared_ptr<queue::SerialQueue>& queue, Changed changed,
                                         Overflow overflow) {
    file::UniqueFd descriptor{::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)};
    if (!descriptor) return nullptr;
    std::unique_ptr<Watcher> watcher{new Watcher{std::move(descriptor), std::move(changed), std::move(overflow)}};
    // The watch goes with the watcher, on the same queue, so that the handler never sees a watcher that is gone.
    watcher->watch_ =
        queue::watch(watcher->descriptor_.get(), queue, [self = watcher.get()](std::uint32_t) { self->read(); });
    if (!watcher->watch_) return nullptr;
    return watcher;
}

Watcher::Watcher(file::UniqueFd descriptor, Changed changed, Overflow overflow)
    : descriptor_{std::move(descriptor)}, changed_{std::move(changed)}, overflow_{std::move(overflow)} {}

Watcher::~Watcher() = default;

void Watcher::read() {
    alignas(inotify_event) std::array<char, kBuffer> buffer;
    for (;;) {
        const ssize_t length = ::read(descriptor_.get(), buffer.data(), buffer.size());
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) return;
        for (std::size_t at = 0; at < static_cast<std::size_t>(length);) {
            inotify_event event;
            std::memcpy(&event, buffer.data() + at, sizeof event);
            const char* const name = buffer.data() + at + sizeof event;
            tell(event.wd, event.mask, event.len > 0 ? std::string_view{name} : std::string_view{});
            at += sizeof event + event.len;
        }
    }
}

void Watcher::tell(int watch, std::uint32_t mask, std::string_view name) {
    if (mask & IN_Q_OVERFLOW) {
        overflow_();
        return;
    }
    const auto found = interests_.find(watch);
    if (found != interests_.end()) {
        for (const Interest& interest : found->second) {
            if (!interest.only.empty() && !name.empty() && name != interest.only) continue;
            changed_(*interest.topic, interest.only.empty() ? name : std::string_view{});
        }
        if (mask & IN_IGNORED) {  // the kernel has dropped the watch
            for (const Interest& interest : found->second) std::erase(topics_.at(*interest.topic).watches, watch);
            interests_.erase(found);
        }
    }
    if ((mask & (IN_MOVE_SELF | IN_DELETE_SELF | IN_IGNORED)) != 0 && dropAncestor(watch)) overflow_();
}

bool Watcher::add(const Topic& topic, const std::string& path, const std::string& only, std::uint32_t flags) {
    const int watch = ::inotify_add_watch(descriptor_.get(), path.c_str(), kEvents | flags);
    if (watch < 0) {
        exhausted_ = exhausted_ || errno == ENOSPC || errno == ENOMEM;
        return false;
    }
    const auto own = topics_.try_emplace(topic).first;
    auto& interests = interests_[watch];
    const auto known = std::find_if(interests.begin(), interests.end(),
                                    [&](const Interest& interest) { return interest.topic == &own->first; });
    if (known == interests.end()) {
        interests.push_back({&own->first, only});
    } else {
        known->only = only;
    }
    std::vector<int>& watches = own->second.watches;
    if (std::find(watches.begin(), watches.end(), watch) == watches.end()) watches.push_back(watch);
    return true;
}

void Watcher::letGo(int watch, const Topic& topic) {
    const auto found = interests_.find(watch);
    if (found == interests_.end()) return;
    std::erase_if(found->second, [&](const Interest& interest) { return *interest.topic == topic; });
    if (!found->second.empty()) return;
    interests_.erase(found);
    ::inotify_rm_watch(descriptor_.get(), watch);
    const auto ancestor = ancestorPaths_.find(watch);
    if (ancestor == ancestorPaths_.end()) return;
    // Anew, for only that which counts of an ancestor.
    const std::string path = ancestor->second;
    ancestorPaths_.erase(ancestor);
    watchAncestor(path, ancestors_.at(path));
}

void Watcher::holdAbove(const std::string& path) {
    forEachAncestor(path, [this](const std::string& directory) {
        Ancestor& ancestor = ancestors_[directory];
        ++ancestor.holders;
        if (ancestor.watch < 0) watchAncestor(directory, ancestor);
    });
}

void Watcher::watchAncestor(const std::string& path, Ancestor& ancestor) {
    ancestor.watch = ::inotify_add_watch(descriptor_.get(), path.c_str(), kGoing);
    if (ancestor.watch >= 0) {
        ancestorPaths_[ancestor.watch] = path;
    } else {
        exhausted_ = exhausted_ || errno == ENOSPC || errno == ENOMEM;
    }
}

void Watcher::releaseAbove(const std::string& path) {
    forEachAncestor(path, [this](const std::string& directory) {
        const auto found = ancestors_.find(directory);
        if (--found->second.holders > 0) return;
        const int watch = found->second.watch;
        if (watch >= 0) dropAncestor(watch);
        ancestors_.erase(directory);
    });
}

// What lies at the path from now on is watched when it is held again. False when the watch is no ancestor's.
bool Watcher::dropAncestor(int watch) {
    const auto found = ancestorPaths_.find(watch);
    if (found == ancestorPaths_.end()) return false;
    ancestors_.at(found->second).watch = -1;
    ancestorPaths_.erase(found);
    if (!interests_.contains(watch)) ::inotify_rm_watch(descriptor_.get(), watch);
    return true;
}

Watcher::Look::Look(Watcher* watcher, const Topic& topic) : watcher_{watcher}, topic_{topic} {
    if (!watcher_) return;
    const auto found = watcher_->topics_.find(topic);
    if (found != watcher_->topics_.end()) before_ = std::exchange(found->second, {});
}

Watcher::Look::~Look() {
    if (!watcher_) return;
    const auto own = watcher_->topics_.find(topic_);
    for (const std::string& path : before_.beneath) watcher_->releaseAbove(path);
    for (const int watch : before_.watches) {
        const bool again =
            own != watcher_->topics_.end() &&
            std::find(own->second.watches.begin(), own->second.watches.end(), watch) != own->second.watches.end();
        if (!again) watcher_->letGo(watch, topic_);
    }
    if (own != watcher_->topics_.end() && own->second.empty()) watcher_->topics_.erase(own);
}

bool Watcher::Look::directory(const std::string& path) {
    return watcher_ && watcher_->add(topic_, path, "", IN_DONT_FOLLOW);
}

void Watcher::Look::above(const std::string& path) {
    if (!watcher_) return;
    watcher_->holdAbove(path);
    watcher_->topics_[topic_].beneath.push_back(path);
}

void Watcher::Look::towards(const std::string& path) {
    if (!watcher_) return;
    for (int tries = 0; tries < kTowardsTries; ++tries) {
        std::string reached = path;
        std::string next;  // the step that is missing below it
        while (!watcher_->add(topic_, reached, next, 0)) {
            const std::size_t slash = reached.rfind('/');
            if (slash == std::string::npos || reached == "/") return;
            next = reached.substr(slash + 1);
            reached.resize(std::max<std::size_t>(slash, 1));
        }
        above(reached);
        // The step may have appeared, and what was reached may have gone elsewhere, before all was watched.
        const bool appeared =
            !next.empty() && ::access(std::string{reached}.append("/").append(next).c_str(), F_OK) == 0;
        if (!appeared && ::access(reached.c_str(), F_OK) == 0) return;
    }
}

void Watcher::Look::entry(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (!watcher_ || slash == std::string::npos || slash == 0) return;
    const std::string parent = path.substr(0, slash);
    if (watcher_->add(topic_, parent, path.substr(slash + 1), 0)) {
        above(parent);
    } else {
        towards(parent);
    }
}

}  // namespace dravo
