#include <poll.h>
#include <sched.h>
#include <sys/mount.h>

#include "platform/mox/PeerProgram.h"
#include "tests/platform/mox/Peers.h"
#include "tests/support/ChildProcess.h"

// Who the service takes a peer for, and what is tried to be taken for somebody else. The trusted program of these tests
// is /bin/sleep, or the shell where it has to execute another.
namespace moxtest {
namespace {

class Identity : public testing::Test {
protected:
    // A child process, which connects the socket that the test holds as well, and executes a program before the service
    // accepts it. False where there are no such namespaces.
    bool execute(const std::string& program, const std::string& argument, const char* another = nullptr,
                 const std::function<void(const RawPeer&)>& connect = &RawPeer::connect, int namespaces = 0) {
        std::latch blocked{1}, executed{1};
        service_.queue->async([&] {
            blocked.count_down();
            executed.wait();
        });
        blocked.wait();
        const auto work = [&]() -> std::string {
            connect(peer_);
            ::execl(program.c_str(), program.c_str(), argument.c_str(), another, nullptr);
            return "not executed";
        };
        process_.emplace(work, namespaces);
        executed.count_down();
        service_.queue->sync([] {});
        return process_->told().empty();
    }

    World world_;
    Service service_;
    RawPeer peer_;
    const std::string socket_ = std::to_string(peer_.get());
    std::optional<support::ChildProcess> process_;
};

TEST_F(Identity, IsTheProcessItsExecutableAndItsBundleUntilTheProcessEndsEvenWhileAnotherKeepsTheSocket) {
    const std::string bundle = world_.root / "Host.app", program = bundle + "/peer";
    world_.root.writeList("Host.app/Info.plist", Dictionary{{"QFBundleExecutable", "peer"}});
    world_.root.writeList("Host.app/Entitlements.plist", Dictionary{{"granted", 1}});
    fs::copy_file(MOX_ECHO_PEER, program);
    ASSERT_TRUE(execute(program, socket_));
    ASSERT_TRUE(service_.await("connected"));
    const auto& identity = service_.identity;
    EXPECT_EQ(identity->pid, process_->pid());
    EXPECT_EQ(identity->uid, ::getuid());
    EXPECT_EQ(identity->executablePath(), program);
    EXPECT_EQ(identity->program->bundle->bundlePath(), bundle);
    EXPECT_TRUE(identity->program->entitlements->find("granted"));
    process_->end();
    EXPECT_TRUE(service_.await("gone"));
}

// A process connects, and executes a trusted program before it is accepted. The guess stands for an echo.
TEST_F(Identity, IsNotThatOfAProgramExecutedBeforeTheAccept) {
    const Blob guess = frame(FrameKind::echo, 0, Blob(sizeof(mox::wire::Nonce))) + request();
    ASSERT_TRUE(execute("/bin/sleep", "60", nullptr, [&](const RawPeer& peer) {
        peer.connect();
        peer.send(guess);
    }));
    EXPECT_TRUE(peer_.isEnded());
    EXPECT_THAT(service_.takeEvents(), IsEmpty());
}

// The same, but who shares the socket (this test) has seen the nonce and answers for the trusted program.
TEST_F(Identity, IsNotLentToAnotherProcess) {
    ASSERT_TRUE(execute("/bin/sleep", "60"));
    peer_.greet();
    EXPECT_TRUE(peer_.isEnded());
    EXPECT_THAT(service_.takeEvents(), IsEmpty());
}

// The trusted program, here the shell, is there when the connection is accepted, and executes another afterwards.
TEST_F(Identity, IsNotKeptAcrossAnotherExecution) {
    ASSERT_EQ(::mkfifo((world_.root / "go").c_str(), 0600), 0);
    const std::string script = "read go < " + (world_.root / "go") + "; exec " MOX_ECHO_PEER " " + socket_;
    ASSERT_TRUE(execute("/bin/sh", "-c", script.c_str()));
    pollfd hello{peer_.get(), POLLIN, 0};
    ASSERT_EQ(::poll(&hello, 1, 20'000), 1);
    world_.root.write("go", "go\n");
    EXPECT_TRUE(world_.log.awaitLine("no longer what connected"));
    EXPECT_THAT(service_.takeEvents(), IsEmpty());
}

TEST_F(Identity, HasNoPathWhenTheProgramIsMountedOverIt) {
    const auto connect = [](const RawPeer& peer) {
        if (::mount(MOX_ECHO_PEER, "/bin/sleep", nullptr, MS_BIND, nullptr) == 0) peer.connect();
    };
    if (!execute("/bin/sleep", socket_, nullptr, connect, CLONE_NEWUSER | CLONE_NEWNS)) GTEST_SKIP() << "no namespaces";
    ASSERT_TRUE(service_.await("connected"));
    EXPECT_EQ(service_.identity->pid, process_->pid());
    EXPECT_FALSE(service_.identity->executablePath());
}

// A process that owns a namespace of pids may claim any of them for what it sends.
TEST_F(Identity, HasNoPathWithPidsOfItsOwn) {
    if (!execute(MOX_ECHO_PEER, socket_, nullptr, &RawPeer::connect, CLONE_NEWUSER | CLONE_NEWPID))
        GTEST_SKIP() << "no namespaces";
    ASSERT_TRUE(service_.await("connected"));
    EXPECT_TRUE(service_.identity->executable);
    EXPECT_FALSE(service_.identity->executablePath());
}

}  // namespace
}  // namespace moxtest
