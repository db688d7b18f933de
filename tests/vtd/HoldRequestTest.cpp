#include <chrono>
#include <fstream>
#include <future>

#include <gtest/gtest.h>

#include "Velto/VTDaemonClient.h"
#include "platform/activity/Activity.h"
#include "platform/plist/Plist.h"
#include "tests/support/LogLines.h"
#include "tests/support/Words.h"
#include "tests/vtd/FakePeer.h"
#include "tests/vtd/World.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/VTDPlugInHold.h"

namespace {

using testing::Each;
using value::Uuid;

const std::string kApplication = World::get().root() / "user/Applications/Trip.app";
const std::string kA = kApplication + "/PlugIns/a";
const std::string kB = kApplication + "/PlugIns/b";

// A whole daemon in this process with two clients, over real sockets; an application with the plug-ins a and b.
class HoldRequest : public testing::Test {
protected:
    HoldRequest() {
        for (const std::string& path : {kApplication, kA, kB}) {
            Dictionary info{{"QFBundleIdentifier", "=" + path.substr(path.size() - 1)}};
            if (path != kApplication) info = info.changing("KXExtension", Dictionary{{"KXExtensionProtocol", "#Data"}});
            fs::create_directories(path);
            std::ofstream{path + "/Info.plist"} << *plist::writeXml(info);
        }
        server = World::get().serve(service);
    }

    static Dictionary ask(VTDaemonClient& client, const Dictionary& keys, const char* name = VTRequest::lock) {
        mox::Dictionary message = client.request(name);
        for (const auto& [key, content] : keys) message.set(key, content);
        std::promise<Dictionary> answer;
        client.send(message, [&](const mox::Object& reply) { answer.set_value(*reply.view().toValue().dictionary()); });
        return answer.get_future().get();
    }
    // Paths and flags beside it are not looked at.
    Dictionary release(const Array& tokens) {
        return ask(holder, {{"uuids", tokens}, {"paths", Array{kA}}, {"flags", 2u}});
    }
    Uuid hold(const Array& paths) { return *ask(holder, {{"paths", paths}, {"flags", 2u}}).find("uuids")->uuid(); }

    // The last letters of what a client finds.
    static std::string found(VTDaemonClient& client) {
        std::string names;
        const Dictionary reply = ask(client, {}, VTRequest::match);
        for (const Value& form : *reply.array("matches")) names += form.dictionary()->string("identifier")->back();
        return names;
    }

    // How often the change of holds was posted so far.
    static std::uint64_t posts() {
        std::ifstream counter{World::get().root() / "run/notify/halvern.velto.annotation-change"};
        std::uint64_t count = 0;
        counter >> count;
        return count;
    }

    // Each test's own: a server lives until its clients' connections have ended, and has a file of its service's.
    const std::string service = testing::UnitTest::GetInstance()->current_test_info()->name();

    std::shared_ptr<VTDServer> server;
    VTDaemonClient holder{service};
    VTDaemonClient other{service};
    support::LogLines log;
};

TEST_F(HoldRequest, IsGrantedOrRefusedWithTheReason) {
    const std::string root = World::get().root().path();
    const std::string badFlags = "invalid request format (unsupported hold flags)";
    const struct {
        const char* name;
        Dictionary request;
        int code;  // 0: granted
        std::string error;
    } rows[] = {
        {"no paths", {{"flags", 1u}}, 4, "invalid request format"},
        {"tokens of another kind", {{"uuids", Uuid{}}, {"flags", 1u}}, 4, "invalid request format"},
        {"a path no string", {{"paths", Array{kA, 1}}, {"flags", 2u}}, 4, "invalid request format"},
        {"relative", {{"paths", Array{kA, "a"}}, {"flags", 2u}}, 9, "absolute path required: a"},
        {"not there", {{"paths", Array{kA, root + "/x"}}, {"flags", 7u}}, 4, badFlags},
        {"not there, first", {{"paths", Array{root + "/x"}}, {"flags", 7u}}, 9, "invalid path: " + root + "/x"},
        {"no plug-in", {{"paths", Array{kA, root}}, {"flags", 2u}}, 9, "no plug-in at path:" + root},
        {"no flags", {{"paths", Array{kA}}}, 4, badFlags},
        {"flags no unsigned", {{"paths", Array{kA}}, {"flags", 2}}, 4, badFlags},
        {"no path at all", {{"paths", Array{}}, {"flags", 3u}}, 0, ""},
        {"no application", {{"paths", Array{root}}, {"flags", 1u}}, 0, ""},
        {"twice", {{"paths", Array{kApplication, kA + "/../.."}}, {"flags", 1u}}, 0, ""},
    };
    for (const auto& row : rows) {
        const std::uint64_t before = posts();
        const Dictionary reply = ask(holder, row.request);
        if (row.code != 0) {
            EXPECT_EQ(reply, (Dictionary{{"errorcode", row.code}, {"error", row.error}})) << row.name;
        } else {
            ASSERT_TRUE(reply.size() == 1 && reply.find("uuids")->uuid()) << row.name;
            EXPECT_EQ(release({*reply.find("uuids")}), Dictionary{}) << row.name;
        }
        EXPECT_EQ(activity::count(), 0u) << row.name;
        EXPECT_EQ(posts() - before, row.code == 0 ? 2u : 0u) << row.name;
    }
}

TEST_F(HoldRequest, HidesItsPlugInsFromEverybodyUntilAllAreReleased) {
    EXPECT_EQ(found(holder), "ab");
    const Uuid one = hold({kA});
    const Uuid both = hold({kA, kB});
    server->_sync()->sync([this] { server->setCache({}); });  // records are built anew, and are equal
    EXPECT_EQ(activity::count(), 2u);
    EXPECT_EQ(found(holder) + found(other), "");
    log.take();

    EXPECT_EQ(release({"no token", Uuid::random(), both, 5, both}), Dictionary{});
    EXPECT_THAT(log.take(logging::Level::notice),
                Contains("releasing plug-in hold " + both.string() + " at client's request").Times(1));
    EXPECT_EQ(found(other), "b");
    EXPECT_EQ(ask(other, {{"uuids", Array{one}}}), Dictionary{}) << "who knows the token";
    EXPECT_EQ(found(holder), "ab");
}

TEST_F(HoldRequest, AThousandGoAtOnceWithTheirClient) {
    constexpr std::size_t kMany = 1000;
    const auto plugIns = *server->plugInsWithinApplication(kApplication);
    const auto peer = std::make_shared<FakePeer>();
    const auto client = VTDMoxClient::initWithConnection(peer, server);
    for (std::size_t i = 0; i < kMany; ++i) {
        ASSERT_TRUE(server->addHold(std::make_shared<VTDPlugInHold>(plugIns, client)));
    }
    const Uuid others = hold({kB});
    const std::uint64_t before = posts();
    server->setVerbose(1);
    log.take();

    const auto start = std::chrono::steady_clock::now();
    peer->deliver(mox::ErrorCode::connectionInvalid);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds{500}) << "not quadratic";
    EXPECT_EQ(posts() - before, kMany);
    Texts lines = log.take();
    EXPECT_EQ(lines.back(), "client 4711 is dead");
    lines.pop_back();
    EXPECT_THAT(lines, AllOf(SizeIs(kMany), Each(AllOf(StartsWith("releasing plug-in hold "),
                                                       EndsWith(" for dead client pid 4711")))));
    EXPECT_EQ(found(other), "a");

    // Its request may have been at work when it died.
    EXPECT_FALSE(server->addHold(std::make_shared<VTDPlugInHold>(plugIns, client)));
    EXPECT_EQ(activity::count(), 1u);
    EXPECT_EQ(posts() - before, kMany);
    release({others});
}

}  // namespace
