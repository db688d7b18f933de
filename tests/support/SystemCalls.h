#pragma once

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace support {

struct Followed {
    std::vector<long> calls;  // the numbers of those that began, in any thread
    std::size_t stops = 0;    // a call is two: before it and behind it
    bool answered = false;
};

// Takes over a running process with all its threads, begins something, follows it from system call to system call until
// that is answered, and kills it: then, or before that at the stop of the number given, where the call that was about
// to begin does not happen. Of the calling thread's children only this one may be waited for meanwhile. Nothing, and
// the process is killed, where nobody may trace it.
inline std::optional<Followed> followAndKill(pid_t pid, std::size_t killAt, const std::function<void()>& begin,
                                             const std::function<bool()>& answered) {
    constexpr int kCallStop = SIGTRAP | 0x80;
    const auto goOn = [](pid_t thread, int signal) { ::ptrace(PTRACE_SYSCALL, thread, nullptr, signal); };
    int status = 0;
    const auto end = [&] {
        ::kill(pid, SIGKILL);
        do {
        } while (::waitpid(-1, &status, __WALL) != pid || WIFSTOPPED(status));
    };
    for (const auto& entry : std::filesystem::directory_iterator{"/proc/" + std::to_string(pid) + "/task"}) {
        const pid_t thread = std::stoi(entry.path().filename());
        if (::ptrace(PTRACE_SEIZE, thread, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE) != 0 ||
            ::ptrace(PTRACE_INTERRUPT, thread, nullptr, nullptr) != 0 || ::waitpid(thread, &status, __WALL) != thread) {
            end();
            return {};
        }
        goOn(thread, 0);
    }
    begin();
    Followed followed;
    while (!(followed.answered = answered())) {
        const pid_t thread = ::waitpid(-1, &status, __WALL | WNOHANG);
        if (thread == 0) {
            ::usleep(20);
            continue;
        }
        if (thread < 0) throw std::runtime_error{"it ended by itself"};
        if (!WIFSTOPPED(status)) continue;
        if (WSTOPSIG(status) == kCallStop) {
            __ptrace_syscall_info info{};
            ::ptrace(PTRACE_GET_SYSCALL_INFO, thread, sizeof info, &info);
            if (info.op == PTRACE_SYSCALL_INFO_ENTRY) followed.calls.push_back(static_cast<long>(info.entry.nr));
            if (++followed.stops == killAt) break;
        }
        const bool ours = WSTOPSIG(status) == kCallStop || status >> 16 != 0;
        goOn(thread, ours ? 0 : WSTOPSIG(status));
    }
    end();
    return followed;
}

}  // namespace support
