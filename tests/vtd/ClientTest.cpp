#include "tests/support/Words.h"
#include "tests/vtd/FakePeer.h"
#include "tests/vtd/World.h"
#include "vtd/VTDMoxClient.h"

namespace {

TEST(Client, RequestsOfADeadPeerAreDropped) {
    const auto server = World::get().serve("dead");
    const auto peer = std::make_shared<FakePeer>();
    const auto client = VTDMoxClient::initWithConnection(peer, server);
    std::latch mayGoOn{1};
    server->submitWork([&] { mayGoOn.wait(); });
    for (int i = 0; i < 3; ++i) peer->deliver({{"version", 3u}, {"request", "unheard of"}});
    EXPECT_TRUE(client->acceptWork());
    peer->deliver(mox::ErrorCode::connectionInvalid);
    mayGoOn.count_down();
    server->mainQueue()->sync([] {});
    EXPECT_THAT(peer->takeReplies(), IsEmpty());
}

}  // namespace
