#include "vtctl/Attendance.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <iostream>

#include "platform/file/UniqueFd.h"
#include "platform/mox/ClientConnection.h"
#include "platform/queue/Reactor.h"
#include "vtctl/ExitStatus.h"
#include "vtctl/Terminal.h"

namespace {

constexpr int kNoSuchProgram = 127;
constexpr int kNotExecutable = 126;
constexpr int kEndedBySignal = 128;

// Signals that wait instead of being obeyed, as long as this lives. Those that are ignored stay so: whoever started us
// (nohup, a shell in the background) wants it. The threads of the pool take none.
class HeldSignals {
public:
    explicit HeldSignals(std::initializer_list<int> signals) {
        sigemptyset(&held_);
        for (const int signal : signals) {
            struct sigaction action {};
            if (::sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) sigaddset(&held_, signal);
        }
        ::pthread_sigmask(SIG_BLOCK, &held_, &before_);
    }
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;
    ~HeldSignals() {
        watch_.reset();
        ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }

    const sigset_t& before() const { return before_; }

    // Hands over those that came already, too.
    void deliverTo(const std::shared_ptr<queue::SerialQueue>& queue,
                   std::function<void(const signalfd_siginfo& signal)> handler) {
        const auto fd = std::make_shared<const file::UniqueFd>(::signalfd(-1, &held_, SFD_CLOEXEC | SFD_NONBLOCK));
        watch_ = queue::watch(fd->get(), queue, [fd, handler = std::move(handler)](std::uint32_t) {
            signalfd_siginfo signal{};
            while (::read(fd->get(), &signal, sizeof signal) == static_cast<ssize_t>(sizeof signal)) handler(signal);
        });
    }

private:
    sigset_t held_{};
    sigset_t before_{};
    std::unique_ptr<queue::Watch> watch_;
};

// Stands for this very process, also when its number is another's.
int openPidfd(pid_t pid) {
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, O_NONBLOCK));
}

void sendSignal(int pidfd, std::uint32_t signal) {
    ::syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0);
}

// 0 or an errno.
int start(const std::vector<std::string>& command, const sigset_t& signals, pid_t& pid) {
    std::vector<char*> words;
    for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));  // NOLINT: spawn's type
    words.push_back(nullptr);
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    ::posix_spawnattr_setsigmask(&attributes, &signals);
    const int error = ::posix_spawnp(&pid, words.front(), nullptr, &attributes, words.data(), environ);
    ::posix_spawnattr_destroy(&attributes);
    return error;
}

int statusOf(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return static_cast<int>(ExitStatus::errorReply);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : kEndedBySignal + WTERMSIG(status);
}

}  // namespace

Attendance::Attendance(const std::string& serviceName) : client_{serviceName} {
    auto connection = mox::ClientConnection::create(serviceName, client_.replyQueue());
    connection->setEventHandler([gone = gone_](const mox::Object&) {
        *gone = true;
        queue::wake();
    });
    connection->resume();
    client_.setVtd(std::move(connection));
}

int Attendance::during(const std::vector<std::string>& command, const std::string& loss) {
    if (daemonIsGone()) {
        terminal::complain(loss);
        return static_cast<int>(ExitStatus::unreachable);
    }
    std::cout.flush();
    HeldSignals signals{SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2};
    pid_t pid = -1;
    if (const int error = start(command, signals.before(), pid); error != 0) {
        terminal::complain("cannot run " + terminal::quoted(command.front()) + ": " + std::strerror(error));
        return error == ENOENT || error == ENOTDIR ? kNoSuchProgram : kNotExecutable;
    }
    const auto child = std::make_shared<const file::UniqueFd>(openPidfd(pid));
    const auto ended = std::make_shared<std::atomic<bool>>(false);
    const auto watch = queue::watch(child->get(), client_.replyQueue(), [child, ended](std::uint32_t) {
        *ended = true;
        queue::wake();
    });
    signals.deliverTo(client_.replyQueue(), [child](const signalfd_siginfo& signal) {
        const bool fromTerminal = signal.ssi_code == SI_KERNEL;
        if (!fromTerminal) sendSignal(child->get(), signal.ssi_signo);
    });
    if (!watch) return statusOf(pid);

    queue::runUntil([&] { return *ended || daemonIsGone(); });
    const bool lost = !*ended;
    if (lost) {
        terminal::complain(loss + "; the command goes on");
        queue::runUntil([&ended] { return ended->load(); });
    }
    const int status = statusOf(pid);
    return lost && status == 0 ? static_cast<int>(ExitStatus::unreachable) : status;
}

int Attendance::untilInterrupted(const std::function<void()>& announce, const std::string& loss) {
    HeldSignals signals{SIGINT, SIGTERM};
    announce();
    std::cout.flush();
    if (!std::cout) return static_cast<int>(ExitStatus::errorReply);
    const auto interrupted = std::make_shared<std::atomic<bool>>(false);
    signals.deliverTo(client_.replyQueue(), [interrupted](const signalfd_siginfo&) {
        *interrupted = true;
        queue::wake();
    });
    queue::runUntil([&] { return *interrupted || daemonIsGone(); });
    if (*interrupted) return static_cast<int>(ExitStatus::success);
    terminal::complain(loss);
    return static_cast<int>(ExitStatus::unreachable);
}
