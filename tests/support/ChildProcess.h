#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <string>
#include <utility>

namespace support {

// A forked child that has done some work, has told what came of it, and stays until it is killed, at the latest with
// this object. Or the work executes another program, and nothing is told.
class ChildProcess {
public:
    // The namespaces are made with the child, since a sanitizer's thread would keep it from making them itself.
    explicit ChildProcess(const std::function<std::string()>& work, int namespaces = 0) {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) return;
        pid_ =
            namespaces == 0 ? ::fork() : static_cast<pid_t>(::syscall(SYS_clone, namespaces | SIGCHLD, 0L, 0L, 0L, 0L));
        if (pid_ == 0) {
            const std::string text = work();
            const bool told = ::write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
            ::close(ends[1]);
            if (told) ::pause();
            ::_exit(1);
        }
        ::close(ends[1]);
        std::array<char, 4096> buffer;
        for (ssize_t got; (got = ::read(ends[0], buffer.data(), buffer.size())) > 0;) told_.append(buffer.data(), got);
        ::close(ends[0]);
        if (pid_ < 0 || ::waitpid(pid_, nullptr, WNOHANG) != 0) told_ += "the child died";
    }
    ~ChildProcess() { end(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }
    const std::string& told() const { return told_; }

    void end() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        ::waitpid(std::exchange(pid_, -1), nullptr, 0);
    }

private:
    pid_t pid_ = -1;
    std::string told_;
};

// Runs the work in a child, for what changes a process for good (namespaces, filters of system calls), and answers the
// text it returned. A child that dies says so.
inline std::string inChildProcess(const std::function<std::string()>& work) {
    return ChildProcess{work}.told();
}

}  // namespace support
