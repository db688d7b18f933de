#include <chrono>
#include <fstream>
#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Velto/VTDaemonClient.h"
#include "platform/activity/Activity.h"
#include "platform/plist/Plist.h"
#include "tests/support/LogLines.h"
#include "tests/vtd/FakePeer.h"
#include "tests/vtd/World.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/VTDPlugInHold.h"

namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::SizeIs;
using testing::StartsWith;
using value::Array;
using value::Dictionary;
using value::Uuid;
using value::Value;

// A whole daemon in this process with two clients, over real sockets; an application with the plug-ins a and b.
class HoldRequest : public testing::Test {
protected:
    HoldRequest() {
        installPlugIn(application, "org.example.trip", false);
        for (const std::string name : {"a", "b"}) {
            installPlugIn(plugIn(name), "org.example." + name, Dictionary{{"KXExtensionProtocol", "#Data"}});
        }
        server = World::get().serve(kService);
        server->setCacheLimit(10);
    }

    static void installPlugIn(const std::string& path, const std::string& identifier, const Value& extension) {
        std::filesystem::create_directories(path);
        const Dictionary info{{"QFBundleIdentifier", identifier}, {"KXExtension", extension}};
        std::ofstream{path + "/Info.plist"} << *plist::writeXml(info);
    }

    static std::string plugIn(const std::string& name) { return application + "/PlugIns/" + name + ".plugin"; }

    static Dictionary ask(VTDaemonClient& client, const Dictionary& request) {
        mox::Dictionary message;
        message.set(VTKey::version, 3u);
        for (const auto& [key, content] : request) message.set(key, content);
        std::promise<Dictionary> answer;
        client.send(message, [&](const mox::Object& reply) { answer.set_value(*reply.view().toValue().dictionary()); });
        return answer.get_future().get();
    }
    static Dictionary lock(std::optional<Value> paths, std::optional<Value> flags) {
        return Dictionary{{"request", "lock"}}.changing("paths", std::move(paths)).changing("flags", std::move(flags));
    }
    Dictionary release(const Value& tokens) {
        return ask(holder, {{"request", "lock"}, {"uuids", tokens}, {"paths", Array{plugIn("a")}}, {"flags", 2u}});
    }
    Uuid hold(const Array& paths) { return *ask(holder, lock(paths, 2u)).find("uuids")->uuid(); }

    // What a client finds.
    static std::string found(VTDaemonClient& client) {
        std::string names;
        const Dictionary rules{{"KXExtensionIdentifier", Array{"=org.example.a", "=org.example.b"}}};
        const Dictionary reply = ask(client, {{"request", "match"}, {"rules", rules}});
        for (const Value& form : *reply.array("matches")) {
            names += form.dictionary()->string("identifier")->back();
        }
        return names;
    }

    std::size_t holds() const {
        return server->syncQueue()->sync([this] { return server->holds().size(); });
    }

    // How often the change of holds was posted so far.
    static std::uint64_t posts() {
        std::ifstream counter{World::get().root() / "run/notify/halvern.velto.annotation-change"};
        std::uint64_t count = 0;
        counter >> count;
        return count;
    }

    static constexpr char kService[] = "halvern.test.holds";
    static const inline std::string application = World::get().root() / "user/Applications/Trip.app";

    std::shared_ptr<VTDServer> server;
    VTDaemonClient holder{kService};
    VTDaemonClient other{kService};
    support::LogLines log;
};

TEST_F(HoldRequest, IsGrantedOrRefusedWithTheReason) {
    const std::string root = World::get().root().path();
    const struct {
        const char* name;
        std::optional<Value> paths;
        std::optional<Value> flags;
        int code;  // 0: granted
        std::string error;
    } rows[] = {
        {"no paths", std::nullopt, 1u, 4, "invalid request format"},
        {"paths no array", Value{plugIn("a")}, 2u, 4, "invalid request format"},
        {"a path no string", Array{plugIn("a"), 1}, 2u, 4, "invalid request format"},
        {"relative", Array{plugIn("a"), "a.plugin"}, 2u, 9, "absolute path required: a.plugin"},
        {"not there", Array{plugIn("a"), root + "/none"}, 2u, 9, "invalid path: " + root + "/none"},
        {"not there, before flags", Array{root + "/none"}, 7u, 9, "invalid path: " + root + "/none"},
        {"no plug-in", Array{plugIn("a"), root}, 2u, 9, "no plug-in at path:" + root},
        {"flags 3", Array{plugIn("a")}, 3u, 4, "invalid request format (unsupported hold flags)"},
        {"no flags", Array{plugIn("a")}, {}, 4, "invalid request format (unsupported hold flags)"},
        {"flags no unsigned", Array{plugIn("a")}, 2, 4, "invalid request format (unsupported hold flags)"},
        {"nothing", Array{}, 3u, 0, ""},
        {"no application", Array{root}, 1u, 0, ""},
        {"an application twice", Array{application, application + "/PlugIns/.."}, 1u, 0, ""},
        {"a plug-in twice", Array{plugIn("a"), plugIn("a")}, 2u, 0, ""},
    };
    for (const auto& row : rows) {
        const std::uint64_t before = posts();
        const Dictionary reply = ask(holder, lock(row.paths, row.flags));
        if (row.code != 0) {
            EXPECT_EQ(reply, (Dictionary{{"errorcode", row.code}, {"error", row.error}})) << row.name;
        } else {
            EXPECT_EQ(reply.size(), 1u) << row.name;
            const auto token = reply.find("uuids")->uuid();
            ASSERT_TRUE(token) << row.name;
            EXPECT_EQ(release(Array{*token}), Dictionary{});
        }
        EXPECT_EQ(holds(), 0u) << row.name;
        EXPECT_EQ(posts() - before, row.code == 0 ? 2u : 0u) << row.name;
    }
}

TEST_F(HoldRequest, HidesItsPlugInsFromEverybodyUntilAllAreReleased) {
    EXPECT_EQ(found(holder), "ab");
    const Uuid one = hold({plugIn("a")});
    const Uuid both = hold({plugIn("a"), plugIn("b")});
    server->_sync()->sync([this] { server->setCache({}); });  // records are built anew, and are equal
    EXPECT_EQ(activity::count(), 2u);
    EXPECT_EQ(found(holder) + found(other), "");
    log.take();

    EXPECT_EQ(release(Array{"no token", Uuid::random(), both, 5, both}), Dictionary{});
    const std::string line = "releasing plug-in hold " + both.string() + " at client's request";
    EXPECT_THAT(log.take(logging::Level::notice), ElementsAre(line)) << "each token once, paths not at all";
    EXPECT_EQ(found(other), "b");
    EXPECT_EQ(ask(other, {{"request", "lock"}, {"uuids", Array{one}}}), Dictionary{}) << "who knows the token";
    EXPECT_EQ(found(holder), "ab");
    EXPECT_EQ(activity::count(), 0u);
    EXPECT_EQ(holds(), 0u);
}

TEST_F(HoldRequest, AThousandGoAtOnceWithTheirClient) {
    constexpr std::size_t kMany = 1000;
    const auto plugIns = *server->plugInsWithinApplication(application);
    auto peer = std::make_shared<FakePeer>();
    const auto client = VTDMoxClient::initWithConnection(peer, server);
    for (std::size_t i = 0; i < kMany; ++i) {
        ASSERT_TRUE(server->addHold(std::make_shared<VTDPlugInHold>(plugIns, client)));
    }
    const Uuid others = hold({plugIn("b")});
    EXPECT_EQ(found(other), "");
    const std::uint64_t before = posts();
    log.take();

    const auto start = std::chrono::steady_clock::now();
    peer->deliver(mox::ErrorCode::connectionInvalid);
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
    RecordProperty("milliseconds", std::to_string(took.count()));
    EXPECT_LT(took.count(), 500) << "not quadratic";
    EXPECT_EQ(posts() - before, kMany);
    EXPECT_THAT(log.take(), AllOf(SizeIs(kMany), Each(AllOf(StartsWith("releasing plug-in hold "),
                                                            EndsWith(" for dead client pid 4711")))));
    EXPECT_EQ(activity::count(), 1u);
    EXPECT_EQ(found(other), "a");

    // Its request may have been at work when it died.
    EXPECT_FALSE(server->addHold(std::make_shared<VTDPlugInHold>(plugIns, client)));
    EXPECT_EQ(holds(), 1u);
    EXPECT_EQ(posts() - before, kMany);
    release(Array{others});
}

}  // namespace
