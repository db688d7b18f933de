#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/queue/SerialQueue.h"

namespace services {

// Where what is to be removed goes with whatever others have put into it, however much that is and however deep: it is
// moved aside at once, by one rename, and removed a part at a time behind everything else. A file, or an empty
// directory, goes right away.
//
// Threading: any thread. What cannot be removed stays, and is tried again with the next.
class Discards : public std::enable_shared_from_this<Discards> {
public:
    // The directory, on the file system of what will be discarded, is made when it is needed and removed when it is
    // empty.
    explicit Discards(std::string directory);

    // 0 when nothing lies at the path any more, else an error number.
    int discard(const std::string& path);

    // Goes on with what an earlier run left there.
    void removeLater();

private:
    int moveAside(const std::string& path);
    bool removeSome();  // whether it is worth going on

    const std::string directory_;
    const std::shared_ptr<queue::SerialQueue> queue_;
    std::atomic<std::uint64_t> lastNumber_{0};
};

}  // namespace services
