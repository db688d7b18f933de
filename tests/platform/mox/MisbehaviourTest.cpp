#include <sys/resource.h>

#include "tests/platform/mox/Peers.h"

// What peers do wrong, by malice or by accident, and that only they notice.
namespace moxtest {
namespace {

using namespace std::chrono_literals;

Blob bytes(std::initializer_list<int> values) {
    Blob blob;
    for (const int value : values) blob.push_back(static_cast<std::byte>(value));
    return blob;
}

// A request with one byte changed.
Blob with(std::size_t at, int value) {
    Blob frame = request();
    frame.at(at) = static_cast<std::byte>(value);
    return frame;
}

TEST(Misbehaviour, EndsThatConnectionWithOneLine) {
    const Blob text = bytes({5, 1, 0, 0, 0, 'x'});
    const std::pair<const char*, Blob> rows[] = {
        {"a length that does not cover the header", with(0, 11)},
        {"a length beyond the limit", bytes({0, 0, 32, 0, 3, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0})},
        {"the greatest length", bytes({255, 255, 255, 255, 3, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0})},
        {"kind 0", with(4, 0)},
        {"an unknown kind", with(4, 7)},
        {"a reply", with(4, 4)},
        {"a hello", frame(FrameKind::hello, 0, {})},
        {"a second echo", frame(FrameKind::echo, 0, Blob(16))},
        {"a request without a reply id", request(0)},
        {"a message with one", frame(FrameKind::message, 1, text)},
        {"a flag", with(5, 1)},
        {"a byte that must be zero", with(6, 1)},
        {"a body that is no value", frame(FrameKind::request, 1, bytes({99, 0}))},
        {"no body", frame(FrameKind::request, 1, {})},
        {"an error, which only the service makes", frame(FrameKind::message, 0, bytes({11, 0, 0, 0, 0, 0, 0, 0, 0}))},
        {"a notice with a body", frame(FrameKind::terminationImminent, 0, text)},
    };
    World world;
    for (const auto& [name, sent] : rows) {
        Service service;
        const RawPeer other = greeted();
        ASSERT_TRUE(service.await("connected"));
        service.takeEvents();
        const RawPeer peer = greeted();
        peer.send(request() + sent + request(2));
        EXPECT_TRUE(peer.isEnded()) << name;
        EXPECT_TRUE(service.await("gone")) << name;
        EXPECT_EQ(service.takeEvents(), (Texts{"connected", "request", "gone"})) << name;
        EXPECT_THAT(world.log.take(), SizeIs(1)) << name;
        other.send(request());
        EXPECT_TRUE(other.readReply());
    }
}

TEST(Misbehaviour, InTheHandshakeIsNeverDelivered) {
    World world;
    Service service;
    const auto echo = [](const Blob& nonce) { return frame(FrameKind::echo, 0, nonce); };
    for (std::size_t row = 0; row < 4; ++row) {
        RawPeer peer;
        peer.connect();
        const auto nonce = peer.readHello();
        const Blob good{nonce.begin(), nonce.end()}, half{nonce.begin(), nonce.begin() + 8};
        const Blob answers[] = {echo(Blob(nonce.size())), echo(half), echo(good + Blob(1)), request()};
        peer.send(answers[row] + request());
        EXPECT_TRUE(peer.isEnded()) << row;
    }
    EXPECT_THAT(world.log.take(), SizeIs(2)) << "three were wrong in the same way";
    EXPECT_TRUE(world.log.awaitLine("service test.service: 2 times more within a second"));
    EXPECT_THAT(service.takeEvents(), IsEmpty());
}

TEST(Misbehaviour, OfAPeerThatIsCutOffAnywhereOrSendsInPiecesHarmsNobody) {
    World world;
    Service service;
    const auto whole = static_cast<std::ptrdiff_t>(request().size());
    for (std::ptrdiff_t cut = 0; cut < 32 + whole; ++cut) {
        RawPeer peer;
        peer.connect();
        const Blob all = frame(FrameKind::echo, 0, peer.readHello()) + request();
        peer.send(std::span{all}.first(static_cast<std::size_t>(cut)));
    }
    EXPECT_TRUE(service.await("gone", whole));  // those whose echo was whole
    EXPECT_THAT(service.takeEvents(), Not(Contains("request")));

    RawPeer slow;
    slow.connect();
    const Blob all = frame(FrameKind::echo, 0, slow.readHello()) + request(1) + request(2);
    for (const std::byte& byte : all) slow.send(std::span{&byte, 1});
    EXPECT_TRUE(slow.readReply(1) && slow.readReply(2));
    EXPECT_THAT(world.log.take(), IsEmpty());
}

TEST(Misbehaviour, DescriptorsAreNotTaken) {
    const World world;
    Service service;
    const RawPeer peer = greeted();
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    const file::UniqueFd readEnd{ends[0]};
    file::UniqueFd writeEnd{ends[1]};

    Blob sent = request();
    iovec piece{sent.data(), sent.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof ends[1])> control{};
    const msghdr message{nullptr, 0, &piece, 1, control.data(), control.size(), 0};
    cmsghdr* const rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof ends[1]);
    std::memcpy(CMSG_DATA(rights), &ends[1], sizeof ends[1]);
    ASSERT_GT(::sendmsg(peer.get(), &message, MSG_NOSIGNAL), 0);

    writeEnd.reset();
    char byte = 0;
    EXPECT_EQ(::read(readEnd.get(), &byte, 1), 0);  // nobody holds the other end
    EXPECT_TRUE(peer.isEnded());
    EXPECT_THAT(service.takeEvents(), Not(Contains("request")));
}

TEST(Misbehaviour, RequestsPastTheBoundWaitUntilOthersAreAnswered) {
    const World world;
    mox::Bounds bounds;
    bounds.connection.requests = 3;
    Service service{{.answersLater = true, .bounds = bounds}};
    const RawPeer peer = greeted();
    peer.send(request(1) + request(2) + request(3) + request(4) + request(5));
    ASSERT_TRUE(service.await("request", 3));
    const RawPeer other = greeted();
    other.send(request());
    ASSERT_TRUE(service.await("request", 4));  // who is not held up
    EXPECT_THAT(service.takeEvents(), SizeIs(2 + 4));
    for (std::size_t index : {0, 1}) {
        service.answer(index);
        ASSERT_TRUE(service.await("request"));
        EXPECT_THAT(service.takeEvents(), SizeIs(1));
    }
    for (std::size_t index = 2; index < 6; ++index) service.answer(index);
    for (std::uint64_t id = 1; id <= 5; ++id) EXPECT_TRUE(peer.readReply(id));
}

TEST(Misbehaviour, WhoTakesNoRepliesOrNeverAnswersTheHelloIsEndedAndWhoIsIdleIsNot) {
    World world;
    mox::Bounds bounds;
    bounds.drainDeadline = 50ms;
    bounds.handshakeDeadline = 200ms;
    Service service{{.bounds = bounds, .fill = [](mox::Reply& reply) { reply.set("padding", value::Data(1 << 20)); }}};
    const RawPeer idle = greeted(), stuck = greeted();
    stuck.send(request());
    EXPECT_TRUE(world.log.awaitLine("it does not take its replies"));
    EXPECT_TRUE(service.await("gone"));
    RawPeer silent;
    silent.connect();
    EXPECT_TRUE(silent.isEnded());
    idle.send(request());
    EXPECT_TRUE(idle.readReply());  // who takes replies gets them, whatever their size
}

TEST(Misbehaviour, WhenAllConnectionsAreTakenTheNewcomerIsServedAndStrangersGoFirst) {
    const World world;
    mox::Bounds bounds;
    bounds.total.connections = 4;
    bounds.handshakeDeadline = 60s;
    Service service{{.bounds = bounds}};
    RawPeer silent;
    std::vector<RawPeer> greedy;
    for (std::ptrdiff_t count = 1; count <= 5; ++count) {
        greedy.push_back(greeted());
        ASSERT_TRUE(service.await("connected", count));
        if (count == 3) silent.connect();
    }
    EXPECT_TRUE(silent.isEnded());
    EXPECT_TRUE(greedy[0].isEnded());
    greedy[4].send(request());
    EXPECT_TRUE(greedy[4].readReply());
}

// With hardly a descriptor left, whoever is idle makes room; what is kept back for files stays.
TEST(Misbehaviour, WhenDescriptorsRunOutTheNewcomerIsServedAndTheOldestIdleGoes) {
    World world;
    Service service;
    std::vector<RawPeer> idle, later(3);
    for (int count = 0; count < 8; ++count) idle.push_back(greeted());
    ASSERT_TRUE(service.await("connected", 8));
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    const auto open =
        static_cast<rlim_t>(std::distance(fs::directory_iterator{"/proc/self/fd"}, fs::directory_iterator{}));
    const rlimit low{open + 17, before.rlim_max};  // 16 are kept back
    ::setrlimit(RLIMIT_NOFILE, &low);
    for (const RawPeer& peer : later) {
        peer.connect();
        peer.greet();
        peer.send(request());
        EXPECT_TRUE(peer.readReply());
        EXPECT_TRUE(file::UniqueFd{::open("/dev/null", O_RDONLY | O_CLOEXEC)});
    }
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_TRUE(idle[0].isEnded());
    EXPECT_THAT(world.log.take(), SizeIs(2)) << "that it waited, and why the first was ended";
}

}  // namespace
}  // namespace moxtest
