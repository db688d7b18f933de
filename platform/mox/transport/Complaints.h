#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/queue/Reactor.h"

namespace mox {

// What a service says in the log of peers whom it refuses or ends. The first of a kind is a line at once; what comes of
// it within the next second is one more line, with the number: peers must not fill the log. Any thread.
class Complaints : public std::enable_shared_from_this<Complaints> {
public:
    Complaints(std::string service, std::shared_ptr<queue::SerialQueue> queue)
        : service_{std::move(service)}, queue_{std::move(queue)} {}

    // `what` happened to a connection of the process (0: one not known), "ended" say, and why.
    void say(pid_t pid, std::string_view what, std::string_view why);

private:
    struct Repeated {
        std::size_t times = 0;
        pid_t lastPid = 0;
    };
    void startTimer();  // with the lock held
    void sayHowOften();

    const std::string service_;
    const std::shared_ptr<queue::SerialQueue> queue_;

    std::mutex mutex_;                                   // guards what follows
    std::map<std::string, Repeated, std::less<>> said_;  // in this second, by text
    std::unique_ptr<queue::Timer> timer_;
};

}  // namespace mox
