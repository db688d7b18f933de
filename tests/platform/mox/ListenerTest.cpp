#include "tests/platform/mox/Peers.h"

namespace moxtest {
namespace {

std::string whyNotServed() {
    try {
        const Service service;
        return "";
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

TEST(Listener, IsReachedUnderALongRootByItsOwnerOnlyAndOneOfANameLivesAtATime) {
    const World world;
    paths::Directories deep = paths::directories();
    for (int i = 0; i < 6; ++i) deep.runtime += "/" + std::string(50, 'd');
    paths::setDirectories(deep);
    const std::string path = deep.runtime + "/" + kService;
    {
        Service service;
        const RawPeer peer = greeted();
        EXPECT_TRUE(service.await("connected"));
        EXPECT_EQ(fs::status(path).permissions(), fs::perms{0600});
        EXPECT_EQ(fs::status(deep.runtime).permissions(), fs::perms{0700});
        EXPECT_EQ(whyNotServed(),
                  "service test.service: process " + std::to_string(::getpid()) + " holds the lock " + path + ".lock");
        const Service another{{.name = "another.service"}};
    }
    const file::UniqueFd precious{::open(path.c_str(), O_CREAT | O_CLOEXEC, 0600)};
    EXPECT_THAT(whyNotServed(), HasSubstr("is no socket; move it away"));
    ASSERT_TRUE(fs::remove(path));
    ASSERT_EQ(::mknod(path.c_str(), S_IFSOCK | 0600, 0), 0);  // what somebody left behind
    EXPECT_EQ(whyNotServed(), "");
    for (const char* name : {"", "..", ".hidden", "a/b", "a\nb"}) EXPECT_FALSE(mox::ServiceSocket::open(name)) << name;
    fs::permissions(deep.runtime, fs::perms{0770});
    EXPECT_THAT(whyNotServed(), EndsWith("others may write there"));
}

TEST(Listener, UsesASocketThatTheServiceManagerPassesForItsName) {
    const World world;
    const auto opened = [](const char* names) {
        const pid_t child = ::fork();
        if (child != 0) {
            int status = 0;
            ::waitpid(child, &status, 0);
            return WEXITSTATUS(status);
        }
        const sockaddr_un unnamed{AF_UNIX, {}};
        const int own = ::socket(AF_UNIX, SOCK_STREAM, 0);
        if (::bind(own, reinterpret_cast<const sockaddr*>(&unnamed), sizeof(sa_family_t)) != 0) ::_exit(1);
        if (::listen(own, 1) != 0) ::_exit(1);
        for (const int passed : {3, 4}) ::dup2(own, passed);
        ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
        ::setenv("LISTEN_FDS", "2", 1);
        ::setenv("LISTEN_FDNAMES", names, 1);
        const auto service = mox::ServiceSocket::open(kService);
        ::_exit(service ? (*service)->get() : 0);
    };
    EXPECT_EQ(opened("other:test.service"), 4);
    EXPECT_EQ(opened("test.service:other"), 3);
    EXPECT_GT(opened("other:another"), 4);
}

// Small replies wait for the end of a batch of requests; neither one that does not wait nor the end may overtake them.
TEST(Listener, SendsTheRepliesThatItHeldBackInOrderAlsoToWhoSaysNoMore) {
    World world;
    queue::SerialQueue other{"other"};
    std::size_t answers = 0;
    Service service{{.fill = [&](mox::Reply& reply) {
        other.async([] {});                                                     // what there is to wait for
        if (++answers % 20 == 0) reply.set("padding", std::string(5000, 'x'));  // too large to wait
    }}};
    const RawPeer peer = greeted();
    Blob requests;
    for (std::uint64_t id = 1; id <= 100; ++id) requests = requests + request(id);
    peer.send(requests);
    ::shutdown(peer.get(), SHUT_WR);
    for (std::uint64_t id = 1; id <= 100; ++id) ASSERT_TRUE(peer.readReply(id)) << id;
    EXPECT_TRUE(peer.isEnded());
}

}  // namespace
}  // namespace moxtest
