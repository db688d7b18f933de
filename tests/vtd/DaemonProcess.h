#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/value/Uuid.h"
#include "tests/support/BoundSocket.h"

// The daemon as people start it: the installed program, as a process of its own with a root of its own. Killed at the
// end. Standard error is a socket that keeps the borders of the writes.
class DaemonProcess {
public:
    DaemonProcess(const std::string& root, std::vector<std::string> arguments) {
        std::array<int, 2> ends{};
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            throw std::runtime_error{"no socket pair"};
        }
        output_ = file::UniqueFd{ends[0]};
        const file::UniqueFd theirs{ends[1]};

        arguments.insert(arguments.begin(), "vtd");
        const std::vector<std::string> environment{"HALVERN_ROOT=" + root, "NOTIFY_SOCKET=" + readyAt_};
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, theirs.get(), STDERR_FILENO);
        const int error = ::posix_spawn(&pid_, VTD_PROGRAM, &actions, nullptr, pointers(arguments).data(),
                                        pointers(environment).data());
        ::posix_spawn_file_actions_destroy(&actions);
        if (error != 0) throw std::runtime_error{"cannot start " VTD_PROGRAM};
    }
    ~DaemonProcess() {
        if (pid_ > 0) stop();
    }
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    pid_t pid() const { return pid_; }

    // Gives its end, and the waiting for that, to somebody else.
    pid_t release() { return std::exchange(pid_, -1); }

    // Waits until it says that it is up; false when it ends instead, or says nothing for a long time.
    bool awaitReady() const {
        std::array<pollfd, 2> watched{{{readiness_.get(), POLLIN, 0}, {output_.get(), 0, 0}}};
        if (::poll(watched.data(), watched.size(), 20'000) <= 0 || watched[0].revents == 0) return false;
        return readiness_.receive() == "READY=1";
    }

    // Waits until it ends by itself; its exit status, or nothing when a signal or this call had to end it.
    std::optional<int> awaitExit() {
        pollfd watched{output_.get(), 0, 0};  // hangs up when the last write end goes
        if (::poll(&watched, 1, 20'000) <= 0) {
            stop();
            return {};
        }
        int status = 0;
        ::waitpid(std::exchange(pid_, -1), &status, 0);
        return WIFEXITED(status) ? std::optional{WEXITSTATUS(status)} : std::nullopt;
    }

    // Each block it has written to standard error so far.
    std::vector<std::string> takeWrites() const {
        std::vector<std::string> writes;
        std::array<char, 8192> block;
        for (ssize_t got; (got = ::recv(output_.get(), block.data(), block.size(), MSG_DONTWAIT)) > 0;) {
            writes.emplace_back(block.data(), static_cast<std::size_t>(got));
        }
        return writes;
    }

    void stop() {
        ::kill(pid_, SIGKILL);
        ::waitpid(std::exchange(pid_, -1), nullptr, 0);
    }

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
    file::UniqueFd output_;
    pid_t pid_ = -1;
};
