#include <poll.h>
#include <sched.h>
#include <sys/mount.h>

#include "tests/platform/mox/Peers.h"
#include "tests/support/Words.h"

// Who the service takes a peer for, and what is tried to be taken for somebody else. The trusted program of these tests
// is /bin/sleep, or the shell where it has to execute another.
namespace moxtest {
namespace {

using mox::wire::FrameKind;

// A child process that connects the socket, which the test holds as well, and executes a program before the service
// accepts it. Ends, at the latest, with this object.
class Process {
public:
    using Step = std::function<bool()>;  // in the child

    Process(Service& service, RawPeer& peer, std::vector<std::string> words, const Step& beforeConnect = nothing,
            const Step& beforeExecution = nothing) {
        service.block();
        std::array<int, 2> input{};
        std::array<int, 2> executed{};
        if (::pipe2(input.data(), O_CLOEXEC) != 0 || ::pipe2(executed.data(), O_CLOEXEC) != 0) return;
        std::vector<char*> arguments;
        arguments.reserve(words.size() + 1);
        for (std::string& word : words) arguments.push_back(word.data());
        arguments.push_back(nullptr);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(input[0], STDIN_FILENO);
            if (!beforeConnect()) ::_exit(1);
            peer.connect(Service::kName);
            if (!beforeExecution()) ::_exit(1);
            ::execv(arguments[0], arguments.data());
            ::_exit(1);
        }
        input_ = file::UniqueFd{input[1]};
        ::close(input[0]);
        ::close(executed[1]);
        char byte = 0;
        hasExecuted_ = ::read(executed[0], &byte, 1) == 0 && ::waitpid(pid_, nullptr, WNOHANG) == 0;
        ::close(executed[0]);
        service.unblock();
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process() { kill(); }

    bool hasExecuted() const { return hasExecuted_; }
    void say(std::string_view line) const { EXPECT_GT(::write(input_.get(), line.data(), line.size()), 0); }
    void kill() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        pid_ = 0;
    }
    pid_t pid() const { return pid_; }

    static bool nothing() { return true; }

private:
    pid_t pid_ = 0;
    bool hasExecuted_ = false;
    file::UniqueFd input_;
};

class Identity : public testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(service_.start()); }

    static RawPeer opened() {
        RawPeer peer;
        peer.open();
        return peer;
    }
    static std::string socketOf(const RawPeer& peer) { return std::to_string(peer.get()); }

    // The helper in a bundle of its own, or not in one.
    std::string install(const std::string& directory, bool inBundle) {
        const std::string program = files_ / directory + "/peer";
        fs::create_directories(files_ / directory);
        fs::copy_file(MOX_ECHO_PEER, program);
        if (inBundle) {
            files_.writeList(directory + "/Info.plist", Dictionary{{"QFBundleExecutable", "peer"}});
        }
        return fs::canonical(program);
    }

    World world_;
    support::TemporaryDirectory files_;
    Service service_;
};

TEST_F(Identity, IsTheProcessItsExecutableAndItsBundle) {
    const std::string program = install("Host.app", true);
    RawPeer peer = opened();
    const Process process{service_, peer, {program, socketOf(peer)}};
    ASSERT_TRUE(service_.awaitConnections(1));
    const auto identity = service_.identity();
    EXPECT_EQ(identity->pid, process.pid());
    EXPECT_EQ(identity->uid, ::getuid());
    EXPECT_EQ(identity->executablePath, program);
    EXPECT_EQ(identity->bundlePath, fs::path{program}.parent_path());
    const std::string directory = "/proc/self/fd/" + std::to_string(identity->bundleDirectory.get());
    EXPECT_TRUE(fs::equivalent(directory, identity->bundlePath));
}

TEST_F(Identity, HasNoBundleOutsideOneAndEndsWithItsProcessEvenWhileAnotherKeepsTheSocket) {
    RawPeer kept = opened();
    Process process{service_, kept, {install("Plain", false), socketOf(kept)}};
    ASSERT_TRUE(service_.awaitConnections(1));
    EXPECT_TRUE(service_.identity()->executablePath);
    EXPECT_FALSE(service_.identity()->bundleDirectory);
    process.kill();
    EXPECT_TRUE(service_.awaitInvalid(1));
}

// A process connects, and executes a trusted program before it is accepted. The guess stands for an echo.
TEST_F(Identity, IsNotThatOfAProgramExecutedBeforeTheAccept) {
    RawPeer peer = opened();
    const Blob guess = frame(FrameKind::echo, 0, Blob(sizeof(mox::wire::Nonce))) + request(1);
    const Process process{service_, peer, {"/bin/sleep", "60"}, Process::nothing, [&] {
                              peer.send(guess);
                              return true;
                          }};
    ASSERT_TRUE(process.hasExecuted());
    EXPECT_TRUE(peer.isEnded());
    EXPECT_EQ(service_.connections(), 0U);
}

// The same, but who shares the socket (this test) has seen the nonce and answers for the trusted program.
TEST_F(Identity, IsNotLentToAnotherProcess) {
    RawPeer peer = opened();
    const Process process{service_, peer, {"/bin/sleep", "60"}};
    ASSERT_TRUE(process.hasExecuted());
    peer.greet();
    EXPECT_TRUE(peer.isEnded());
    EXPECT_EQ(service_.connections(), 0U);
}

// The trusted program, here the shell, is there when the connection is accepted, and executes another afterwards.
TEST_F(Identity, IsNotKeptAcrossAnotherExecution) {
    RawPeer peer = opened();
    const Process process{service_, peer, {"/bin/sh", "-c", "read go; exec " MOX_ECHO_PEER " " + socketOf(peer)}};
    ASSERT_TRUE(process.hasExecuted());
    pollfd hello{peer.get(), POLLIN, 0};
    ASSERT_EQ(::poll(&hello, 1, 20'000), 1);
    process.say("go\n");
    EXPECT_TRUE(world_.awaitLog("no longer what connected"));
    EXPECT_EQ(service_.connections(), 0U);
}

bool write(const char* path, std::string_view text) {
    const file::UniqueFd fd{::open(path, O_WRONLY)};
    return ::write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

TEST_F(Identity, HasNoPathWhenTheProgramIsMountedOverIt) {
    RawPeer peer = opened();
    const std::string map = "0 " + std::to_string(::getuid()) + " 1";
    const Process process{service_, peer, {"/bin/sleep", socketOf(peer)}, [&] {
                              return ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && write("/proc/self/uid_map", map) &&
                                     ::mount(MOX_ECHO_PEER, "/bin/sleep", nullptr, MS_BIND, nullptr) == 0;
                          }};
    if (!process.hasExecuted()) GTEST_SKIP() << "no namespaces here";
    ASSERT_TRUE(service_.awaitConnections(1));
    EXPECT_EQ(service_.identity()->pid, process.pid());
    EXPECT_FALSE(service_.identity()->executablePath);
}

// A process that owns a namespace of pids may claim any of them for what it sends.
TEST_F(Identity, HasNoPathWithPidsOfItsOwn) {
    RawPeer peer = opened();
    const Process process{service_, peer, {MOX_ECHO_PEER, socketOf(peer)}, [] {
                              if (::unshare(CLONE_NEWUSER | CLONE_NEWPID) != 0) return false;
                              const pid_t inside = ::fork();  // the first that has such a pid
                              if (inside == 0) return true;
                              ::close_range(0, ~0U, 0);
                              ::waitpid(inside, nullptr, 0);
                              ::_exit(0);
                          }};
    if (!process.hasExecuted()) GTEST_SKIP() << "no namespaces here";
    ASSERT_TRUE(service_.awaitConnections(1));
    EXPECT_TRUE(service_.identity()->executable);
    EXPECT_FALSE(service_.identity()->executablePath);
}

}  // namespace
}  // namespace moxtest
