#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "platform/sandbox/Sandbox.h"
#include "tests/support/TemporaryDirectory.h"

namespace sandbox {
namespace {

// A child process that has prepared itself and waits to be ended.
class Child {
public:
    // The namespaces are made with the child, since a sanitizer's thread would keep it from making them itself.
    explicit Child(const std::function<bool()>& prepare, int namespaces = 0) {
        int ends[2];
        if (pipe(ends) != 0) return;
        pid_ = static_cast<pid_t>(syscall(SYS_clone, namespaces | SIGCHLD, nullptr, nullptr, nullptr, nullptr));
        if (pid_ == 0) {
            const char outcome = prepare() ? 'y' : 'n';
            if (write(ends[1], &outcome, 1) == 1) {
                for (;;) pause();
            }
            _exit(1);
        }
        close(ends[1]);
        char outcome = 'n';
        prepared_ = read(ends[0], &outcome, 1) == 1 && outcome == 'y';
        close(ends[0]);
    }
    ~Child() { end(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool prepared() const { return prepared_; }
    pid_t pid() const { return pid_; }

    mox::PeerIdentity identity() const {
        mox::PeerIdentity identity;
        identity.pid = pid_;
        identity.pidfd = file::UniqueFd{static_cast<int>(syscall(SYS_pidfd_open, pid_, 0))};
        return identity;
    }

    void end() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
    bool prepared_ = false;
};

bool filterNothing() {
    sock_filter allow{BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW};
    const sock_fprog program{1, &allow};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST(IsSandboxed, TellsByWhatTheKernelSays) {
    const support::TemporaryDirectory plain;
    const support::TemporaryDirectory container;
    container.write("run/.containerenv", "");
    const support::TemporaryDirectory outward;  // a marker's name that leads out of the root
    mkdir((outward / "run").c_str(), 0755);
    ASSERT_EQ(symlink((container / "run/.containerenv").c_str(), (outward / "run/.containerenv").c_str()), 0);
    const struct {
        const char* name;
        std::function<bool()> prepare;
        bool sandboxed;
        int namespaces = 0;
    } rows[] = {
        {"a process like any", [] { return true; }, false},
        {"another user namespace", [] { return true; }, true, CLONE_NEWUSER},
        {"one filter of system calls", filterNothing, true},
        {"another root", [&] { return chroot(plain.path().c_str()) == 0; }, false},
        {"a container's root", [&] { return chroot(container.path().c_str()) == 0; }, true},
        {"a root that shows ours", [&] { return chroot(outward.path().c_str()) == 0; }, false},
    };
    for (const auto& row : rows) {
        const Child child{row.prepare, row.namespaces};
        if (!child.prepared()) {
            EXPECT_NE(geteuid(), 0U) << row.name;  // only root may do all of this
            continue;
        }
        EXPECT_EQ(isSandboxed(child.pid()), row.sandboxed) << row.name;
        EXPECT_EQ(isSandboxed(child.identity()), row.sandboxed) << row.name;
    }
    EXPECT_FALSE(isSandboxed(getpid()));
}

TEST(IsSandboxed, TakesWhatItCannotReadForASandbox) {
    EXPECT_TRUE(isSandboxed(0));
    EXPECT_TRUE(isSandboxed(-1));
    EXPECT_TRUE(isSandboxed(mox::PeerIdentity{}));

    Child child{[] { return true; }};
    auto identity = child.identity();
    child.end();
    EXPECT_TRUE(isSandboxed(identity));
    identity.pid = getpid();  // as if the number were in use again
    EXPECT_TRUE(isSandboxed(identity));
}

}  // namespace
}  // namespace sandbox
