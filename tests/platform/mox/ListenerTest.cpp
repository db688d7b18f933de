#include "platform/mox/ServiceSocket.h"
#include "tests/platform/mox/Peers.h"
#include "tests/support/Words.h"

namespace moxtest {
namespace {

TEST(Listener, TakesTheSocketOfADeadServiceButNotOfALivingOne) {
    World world;
    Service service;
    ASSERT_FALSE(service.start());
    Service second;
    const auto error = second.start();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->message, "service test.service: process " + std::to_string(::getpid()) + " holds the lock " +
                                  world.runtime() + "/test.service.lock");
    Service other;
    EXPECT_FALSE(other.start("other.service"));

    service.stop();
    {  // what a service leaves behind that was killed
        const auto directory = mox::openRuntimeDirectory();
        const sockaddr_un address = mox::serviceAddress(directory->get(), Service::kName);
        const file::UniqueFd stale{::socket(AF_UNIX, SOCK_STREAM, 0)};
        ASSERT_EQ(::bind(stale.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    ASSERT_FALSE(second.start());
    RawPeer peer{Service::kName};
    peer.greet();
    EXPECT_TRUE(second.awaitConnections(1));
}

TEST(Listener, IsReachedUnderALongRootAndByItsOwnerOnly) {
    World world;
    paths::Directories deep = paths::directories();
    for (int i = 0; i < 6; ++i) deep.runtime += "/" + std::string(50, 'd');
    paths::setDirectories(deep);
    Service service;
    ASSERT_FALSE(service.start());
    RawPeer peer{Service::kName};
    peer.greet();
    EXPECT_TRUE(service.awaitConnections(1));
    EXPECT_EQ(fs::status(deep.runtime + "/" + Service::kName).permissions(), fs::perms{0600});
    EXPECT_EQ(fs::status(deep.runtime).permissions(), fs::perms{0700});
    fs::permissions(deep.runtime, fs::perms{0770});
    Service trusting;
    EXPECT_TRUE(trusting.start("other.service")) << "a directory that others may write to";
}

TEST(Listener, ChecksNames) {
    for (const char* name : {"halvern.velto.vtd", "a", "NAME.sandbox"}) EXPECT_TRUE(mox::isServiceName(name)) << name;
    const std::string tooLong(81, 'n');
    for (const char* name : {"", ".", "..", ".hidden", "a/b", "a\nb", tooLong.c_str()})
        EXPECT_FALSE(mox::isServiceName(name)) << name;
}

TEST(Listener, UsesASocketThatTheServiceManagerPassesForItsName) {
    World world;
    const auto opened = [](const char* names) {
        const pid_t child = ::fork();
        if (child != 0) {
            int status = 0;
            ::waitpid(child, &status, 0);
            return WEXITSTATUS(status);
        }
        const int own = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un unnamed{};
        unnamed.sun_family = AF_UNIX;
        if (::bind(own, reinterpret_cast<sockaddr*>(&unnamed), sizeof(sa_family_t)) != 0) ::_exit(1);
        if (::listen(own, 1) != 0) ::_exit(1);
        for (const int passed : {3, 4}) ::dup2(own, passed);
        ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
        ::setenv("LISTEN_FDS", "2", 1);
        ::setenv("LISTEN_FDNAMES", names, 1);
        const auto service = mox::ServiceSocket::open(Service::kName);
        ::_exit(service ? (*service)->get() : 0);
    };
    EXPECT_EQ(opened("other:test.service"), 4);
    EXPECT_EQ(opened("test.service:other"), 3);
    EXPECT_GT(opened("other:another"), 4);
}

}  // namespace
}  // namespace moxtest
