#include "platform/notify/Notify.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <utility>

#include "platform/file/File.h"
#include "platform/file/UniqueFd.h"
#include "platform/logging/Log.h"
#include "platform/notify/Counter.h"
#include "platform/notify/Watcher.h"

namespace notify {

namespace {

// Follows one counter. The file is kept open, so that what was posted before it was replaced is still seen, and so that
// its successor cannot have the same inode number.
class Follower : public Watcher::Subscriber, public std::enable_shared_from_this<Follower> {
public:
    Follower(std::string path, file::UniqueFd counter, const std::shared_ptr<queue::SerialQueue>& queue,
             std::function<void(std::uint64_t)> handler)
        : path_{std::move(path)},
          queue_{queue},
          handler_{std::move(handler)},
          counter_{std::move(counter)},
          seen_{readCounter(counter_.get()).value_or(0)} {}

    void fileChanged() override {
        if (waiting_.exchange(true)) return;
        queue_->async([weak = weak_from_this()] {
            if (const auto follower = weak.lock()) follower->deliver();
        });
    }

    void end() { ended_ = true; }

private:
    void deliver() {
        waiting_ = false;  // before reading: what changes from here on asks for another turn
        std::uint64_t posts = newPosts();
        if (followReplacement()) posts += newPosts();
        if (posts > 0 && !ended_) handler_(posts);
    }

    std::uint64_t newPosts() {
        const std::uint64_t before = seen_;
        seen_ = readCounter(counter_.get()).value_or(0);
        return seen_ >= before ? seen_ - before : seen_;  // less: it was spoilt, and begun again
    }

    // Turns to the file that the path leads to now; answers whether that is another one than before.
    bool followReplacement() {
        struct stat ours {};
        struct stat found {};
        const bool have = counter_ && fstat(counter_.get(), &ours) == 0;
        if (stat(path_.c_str(), &found) != 0) {
            // An open file keeps its directory from being gone for good, and the watcher from hearing of it.
            if (have && ours.st_nlink == 0) counter_.reset();
            return false;
        }
        if (have && file::isSameFile(found, ours)) return false;
        file::UniqueFd opened{open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
        if (!opened) return false;
        counter_ = std::move(opened);
        seen_ = 0;
        return true;
    }

    const std::string path_;
    const std::shared_ptr<queue::SerialQueue> queue_;
    const std::function<void(std::uint64_t)> handler_;

    std::atomic<bool> waiting_ = false;  // a turn on the queue was asked for
    std::atomic<bool> ended_ = false;

    file::UniqueFd counter_;  // on the queue
    std::uint64_t seen_;      // on the queue
};

class FileObserver : public Observer {
public:
    FileObserver(std::shared_ptr<Watcher> watcher, std::shared_ptr<Follower> follower)
        : watcher_{std::move(watcher)}, follower_{std::move(follower)} {}
    ~FileObserver() override { follower_->end(); }

private:
    const std::shared_ptr<Watcher> watcher_;
    const std::shared_ptr<Follower> follower_;
};

}  // namespace

std::unique_ptr<Observer> observe(const std::string& name, const std::shared_ptr<queue::SerialQueue>& queue,
                                  std::function<void(std::uint64_t posts)> handler) {
    auto counter = openCounter(name);
    if (!counter) {
        logging::error("cannot observe " + name + ": " + counter.error().localizedDescription());
        return nullptr;
    }
    auto watcher = Watcher::of(counterDirectory());
    if (!watcher) {
        logging::error(value::posixError(errno, "cannot observe " + name).localizedDescription());
        return nullptr;
    }
    const std::string fileName = counterFileName(name);
    auto follower =
        std::make_shared<Follower>(counterDirectory() + "/" + fileName, std::move(*counter), queue, std::move(handler));
    watcher->subscribe(fileName, follower);
    follower->fileChanged();  // for what was posted before the subscription
    return std::make_unique<FileObserver>(std::move(watcher), std::move(follower));
}

}  // namespace notify
