#pragma once

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "platform/value/Uuid.h"
#include "tests/support/BoundSocket.h"

// The daemon as people start it: the installed program, as a process of its own with a root of its own. Killed at the
// end.
class DaemonProcess {
public:
    DaemonProcess(const std::string& root, std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "vtd");
        const std::vector<std::string> environment{"HALVERN_ROOT=" + root, "NOTIFY_SOCKET=" + readyAt_};
        if (::posix_spawn(&pid_, VTD_PROGRAM, nullptr, nullptr, pointers(arguments).data(),
                          pointers(environment).data()) != 0) {
            throw std::runtime_error{"cannot start " VTD_PROGRAM};
        }
    }
    ~DaemonProcess() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    // Waits until it says that it is up; false when it says nothing for a long time.
    bool awaitReady() const { return readiness_.receive(20'000) == "READY=1"; }

private:
    static std::vector<char*> pointers(const std::vector<std::string>& texts) {
        std::vector<char*> result;
        for (const std::string& text : texts)
            result.push_back(const_cast<char*>(text.c_str()));  // NOLINT: spawn's type
        result.push_back(nullptr);
        return result;
    }

    const std::string readyAt_ = "@vtd-ready-" + value::Uuid::random().string();
    const support::BoundSocket readiness_{readyAt_};
    pid_t pid_ = -1;
};
