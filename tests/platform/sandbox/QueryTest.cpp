#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include "platform/sandbox/Sandbox.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Words.h"

namespace sandbox {
namespace {

mox::PeerIdentity identityOf(pid_t pid) {
    mox::PeerIdentity identity;
    identity.pid = pid;
    identity.pidfd = file::UniqueFd{static_cast<int>(syscall(SYS_pidfd_open, pid, 0))};
    return identity;
}

bool filterNothing() {
    sock_filter allow{BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW};
    const sock_fprog program{1, &allow};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST(IsSandboxed, TellsByWhatTheKernelSays) {
    const support::TemporaryDirectory root;
    const std::string marker = root.write("container/run/.containerenv", "");
    fs::create_directories(root / "outward/run");
    fs::create_symlink(marker, root / "outward/run/.containerenv");
    const auto changeRoot = [&](const char* to) { return [&root, to] { return chroot((root / to).c_str()) == 0; }; };
    const struct {
        const char* name;
        std::function<bool()> prepare;
        bool sandboxed;
        int namespaces = 0;
    } rows[] = {
        {"a process like any", [] { return true; }, false},
        {"another user namespace", [] { return true; }, true, CLONE_NEWUSER},
        {"one filter of system calls", filterNothing, true},
        {"another root", changeRoot(""), false},
        {"a container's root", changeRoot("container"), true},
        {"a root that has the marker elsewhere only", changeRoot("outward"), false},
    };
    for (const auto& row : rows) {
        const support::ChildProcess child{[&] { return row.prepare() ? "prepared"s : ""s; }, row.namespaces};
        if (child.told() != "prepared") {
            skipPart(row.name);  // not even root may do all of this everywhere
            continue;
        }
        EXPECT_EQ(isSandboxed(child.pid()), row.sandboxed) << row.name;
        EXPECT_EQ(isSandboxed(identityOf(child.pid())), row.sandboxed) << row.name;
    }
    EXPECT_FALSE(isSandboxed(getpid()));
}

TEST(IsSandboxed, TakesWhatItCannotReadForASandbox) {
    EXPECT_TRUE(isSandboxed(-1));
    EXPECT_TRUE(isSandboxed(mox::PeerIdentity{}));
    support::ChildProcess child{[] { return ""s; }};
    auto identity = identityOf(child.pid());
    child.end();
    EXPECT_TRUE(isSandboxed(identity));
    identity.pid = getpid();  // as if the number were in use again
    EXPECT_TRUE(isSandboxed(identity));
}

}  // namespace
}  // namespace sandbox
