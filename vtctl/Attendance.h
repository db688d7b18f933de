#pragma once

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Velto/VTDaemonClient.h"

// A connection that is kept open for what goes with it (a hold, a registration): until a command has ended, until a
// signal asks for the end, or until the daemon goes away.
class Attendance {
public:
    // A client whose connection's end is noticed.
    explicit Attendance(const std::string& serviceName);
    Attendance(const Attendance&) = delete;
    Attendance& operator=(const Attendance&) = delete;

    VTDaemonClient& client() { return client_; }
    bool daemonIsGone() const { return *gone_; }

    // Runs the command and waits for its end: its exit status, 128 and the signal that ended it, 127 when there is no
    // such program and 126 when it cannot be executed. When the daemon goes away meanwhile, `loss` says on standard
    // error what is gone with it; the command goes on, and a success of it becomes ExitStatus::unreachable. A signal
    // that another process sends is passed on; one from the terminal has reached the command already.
    int during(const std::vector<std::string>& command, const std::string& loss);

    // Waits for SIGINT or SIGTERM: 0. When the daemon goes away first: ExitStatus::unreachable, and `loss` is said.
    // What `announce` writes to standard output can be answered with a signal at once: they wait from before it on.
    // When it cannot be written: ExitStatus::errorReply.
    int untilInterrupted(const std::function<void()>& announce, const std::string& loss);

private:
    VTDaemonClient client_;
    std::shared_ptr<std::atomic<bool>> gone_ = std::make_shared<std::atomic<bool>>(false);
};
