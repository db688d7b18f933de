#include "platform/activity/Activity.h"
#include "tests/support/Words.h"
#include "tests/vtd/FakePeer.h"
#include "tests/vtd/World.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDPlugInHold.h"

namespace {

TEST(Holds, OfARequestThatWasAtWorkWhenItsClientDiedAreNotKept) {
    const auto server = World::get().serve("holds");
    const auto peer = std::make_shared<FakePeer>();
    const auto client = VTDMoxClient::initWithConnection(peer, server);
    const auto hold = [&] { return server->addHold(std::make_shared<VTDPlugInHold>(VTDatabase::PlugIns{}, client)); };
    EXPECT_TRUE(hold());
    EXPECT_EQ(activity::count(), 1U);
    peer->deliver(mox::ErrorCode::connectionInvalid);
    EXPECT_FALSE(hold());
    EXPECT_EQ(activity::count(), 0U);
}

}  // namespace
