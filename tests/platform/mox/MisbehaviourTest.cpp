#include <sys/resource.h>

#include "tests/platform/mox/Peers.h"
#include "tests/support/Words.h"

// What peers do wrong, by malice or by accident, and that only they notice.
namespace moxtest {
namespace {

using mox::wire::FrameKind;
using namespace std::chrono_literals;

Blob bytes(std::initializer_list<int> values) {
    Blob blob;
    for (const int value : values) blob.push_back(static_cast<std::byte>(value));
    return blob;
}

// A good frame with one byte changed.
Blob with(Blob frame, std::size_t at, int value) {
    frame.at(at) = static_cast<std::byte>(value);
    return frame;
}

bool serves() {
    RawPeer peer{Service::kName};
    peer.greet();
    peer.send(request(7));
    const auto reply = peer.readReply();
    return reply && reply->kind == FrameKind::reply && reply->replyId == 7;
}

TEST(Misbehaviour, EndsThatConnectionWithOneLine) {
    const Blob text = bytes({5, 1, 0, 0, 0, 'x'});
    const Blob notice = frame(FrameKind::terminationImminent, 0, {});
    const struct {
        const char* name;
        Blob sent;
    } rows[] = {
        {"a length that does not cover the header", with(request(1), 0, 11)},
        {"a length beyond the limit", bytes({0, 0, 32, 0, 3, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0})},
        {"the greatest length", bytes({255, 255, 255, 255, 3, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0})},
        {"kind 0", with(request(1), 4, 0)},
        {"an unknown kind", with(request(1), 4, 7)},
        {"a reply", with(request(1), 4, 4)},
        {"a hello", with(notice, 4, 1)},
        {"a second echo", frame(FrameKind::echo, 0, bytes({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}))},
        {"a request without a reply id", request(0)},
        {"a message with one", frame(FrameKind::message, 1, text)},
        {"a flag", with(request(1), 5, 1)},
        {"a byte that must be zero", with(request(1), 6, 1)},
        {"a body that is no value", frame(FrameKind::request, 1, bytes({99, 0}))},
        {"no body", frame(FrameKind::request, 1, {})},
        {"an error, which only the service makes", frame(FrameKind::message, 0, bytes({11, 0, 0, 0, 0, 0, 0, 0, 0}))},
        {"a notice with a body", frame(FrameKind::terminationImminent, 0, text)},
    };
    for (const auto& row : rows) {
        World world;
        Service service;
        ASSERT_FALSE(service.start());
        RawPeer other{Service::kName};
        other.greet();
        RawPeer peer{Service::kName};
        peer.greet();
        peer.send(request(1) + row.sent + request(2));
        EXPECT_TRUE(peer.isEnded()) << row.name;
        EXPECT_TRUE(service.awaitInvalid(1)) << row.name;
        EXPECT_EQ(service.events(), (Texts{"request", "error 1"})) << row.name;
        EXPECT_EQ(world.lines().size(), 1U) << row.name;
        other.send(request(9));
        EXPECT_TRUE(other.readReply()) << row.name;
    }
}

TEST(Misbehaviour, InTheHandshakeIsNeverDelivered) {
    World world;
    Service service;
    ASSERT_FALSE(service.start());
    const auto echo = [](std::span<const std::byte> nonce) { return frame(FrameKind::echo, 0, nonce); };
    for (std::size_t row = 0; row < 4; ++row) {
        RawPeer peer{Service::kName};
        const auto nonce = peer.readHello();
        const Blob answers[] = {echo(Blob(sizeof nonce)), echo(std::span{nonce}.first(8)),
                                echo(Blob{nonce.begin(), nonce.end()} + Blob(1)), request(1)};
        peer.send(answers[row] + request(1));
        EXPECT_TRUE(peer.isEnded()) << row;
    }
    EXPECT_EQ(world.lines().size(), 4U);
    EXPECT_EQ(service.connections(), 0U);
    EXPECT_TRUE(serves());
}

TEST(Misbehaviour, OfAPeerThatIsCutOffAnywhereOrSendsInPiecesHarmsNobody) {
    World world;
    Service service;
    ASSERT_FALSE(service.start());
    const std::size_t whole = request(1).size();
    for (std::size_t cut = 0; cut < 32 + whole; ++cut) {
        RawPeer peer{Service::kName};
        const Blob all = frame(FrameKind::echo, 0, peer.readHello()) + request(1);
        peer.send(std::span{all}.first(cut));
    }
    EXPECT_TRUE(service.awaitInvalid(whole));  // those whose echo was whole
    EXPECT_EQ(service.requests(), 0U);

    RawPeer slow{Service::kName};
    const Blob all = frame(FrameKind::echo, 0, slow.readHello()) + request(1) + request(2);
    for (const std::byte& byte : all) slow.send(std::span{&byte, 1});
    EXPECT_TRUE(slow.readReply());
    EXPECT_TRUE(slow.readReply());
    EXPECT_TRUE(world.lines().empty());
}

TEST(Misbehaviour, DescriptorsAreNotTaken) {
    World world;
    Service service;
    ASSERT_FALSE(service.start());
    RawPeer peer{Service::kName};
    peer.greet();
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    const file::UniqueFd readEnd{ends[0]};
    file::UniqueFd writeEnd{ends[1]};
    peer.sendDescriptor(request(1), writeEnd.get());
    writeEnd.reset();
    char byte = 0;
    EXPECT_EQ(::read(readEnd.get(), &byte, 1), 0);  // nobody holds the other end
    EXPECT_TRUE(peer.isEnded());
    EXPECT_EQ(service.requests(), 0U);
}

TEST(Misbehaviour, RequestsPastTheBoundWaitUntilOthersAreAnswered) {
    World world;
    mox::Bounds bounds;
    bounds.connection.requests = 3;
    Service service{Service::Answers::later, bounds};
    ASSERT_FALSE(service.start());
    RawPeer peer{Service::kName};
    peer.greet();
    Blob many;
    for (std::uint64_t id = 1; id <= 5; ++id) many = many + request(id);
    peer.send(many);
    ASSERT_TRUE(service.awaitRequests(3));
    RawPeer other{Service::kName};
    other.greet();
    other.send(request(1));
    ASSERT_TRUE(service.awaitRequests(4));  // who is not held up
    EXPECT_EQ(service.requests(), 4U);
    service.answer(0);
    ASSERT_TRUE(service.awaitRequests(5));
    service.answer(1);
    ASSERT_TRUE(service.awaitRequests(6));
    for (std::size_t index = 2; index < 6; ++index) service.answer(index);
    for (int reply = 0; reply < 5; ++reply) EXPECT_TRUE(peer.readReply());
}

TEST(Misbehaviour, WhoTakesNoRepliesOrNeverAnswersTheHelloIsEndedAndWhoIsIdleIsNot) {
    World world;
    mox::Bounds bounds;
    bounds.drainDeadline = 50ms;
    bounds.handshakeDeadline = 200ms;
    Service service{Service::Answers::atOnce, bounds};
    service.fill = [](mox::Reply& reply) { reply.set("padding", value::Data(std::size_t{1} << 20)); };
    ASSERT_FALSE(service.start());
    RawPeer idle{Service::kName};
    idle.greet();
    RawPeer stuck{Service::kName};
    stuck.greet();
    stuck.send(request(1));
    EXPECT_TRUE(world.awaitLog("it does not take its replies"));
    EXPECT_TRUE(service.awaitInvalid(1));
    RawPeer silent{Service::kName};
    EXPECT_TRUE(silent.isEnded());
    idle.send(request(1));
    EXPECT_TRUE(idle.readReply());  // who takes replies gets them, whatever their size
}

TEST(Misbehaviour, WhenAllConnectionsAreTakenTheNewcomerIsServed) {
    World world;
    mox::Bounds bounds;
    bounds.total.connections = 4;
    Service service{Service::Answers::atOnce, bounds};
    ASSERT_FALSE(service.start());
    std::vector<RawPeer> greedy;
    for (std::size_t count = 1; count <= 6; ++count) {
        greedy.emplace_back(Service::kName).greet();
        ASSERT_TRUE(service.awaitConnections(count));
    }
    EXPECT_TRUE(service.awaitInvalid(2));
    EXPECT_TRUE(greedy[0].isEnded());
    greedy[5].send(request(1));
    EXPECT_TRUE(greedy[5].readReply());
}

TEST(Misbehaviour, AcceptingPausesWhenDescriptorsRunOutAndRecovers) {
    World world;
    Service service;
    ASSERT_FALSE(service.start());
    ASSERT_TRUE(serves());
    std::vector<RawPeer> peers(8);
    for (RawPeer& peer : peers) peer.open();
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    const int lowest = file::UniqueFd{::open("/dev/null", O_RDONLY | O_CLOEXEC)}.get();
    const rlimit low{static_cast<rlim_t>(lowest) + 72, before.rlim_max};  // 64 of these are kept back
    ::setrlimit(RLIMIT_NOFILE, &low);
    for (RawPeer& peer : peers) peer.connect(Service::kName);
    EXPECT_TRUE(world.awaitLog("descriptors run out"));
    EXPECT_TRUE(file::UniqueFd{::open("/dev/null", O_RDONLY | O_CLOEXEC)});  // some are kept back
    ::setrlimit(RLIMIT_NOFILE, &before);
    for (RawPeer& peer : peers) {
        peer.greet();
        peer.send(request(1));
        EXPECT_TRUE(peer.readReply());
    }
}

}  // namespace
}  // namespace moxtest
