#include "Velto/VTAssertion.h"
#include "Velto/VTDaemonClient.h"
#include "Velto/VTProcessAssertion.h"
#include "tests/support/Words.h"
#include "tests/vtd/DaemonProcess.h"

namespace {

// Of this whole program: a host has no other way to choose it.
const support::TemporaryDirectory root;
const int rootIsSet = ::setenv("HALVERN_ROOT", root.path().c_str(), 1);

constexpr char kNobody[] = "halvern.velto.nobody";

}  // namespace

TEST(DaemonClient, SendsWhatTheDaemonUnderstands) {
    const std::string application = root / "system/Applications/A.app";
    root.write("system/Applications/A.app/Info.plist", "<plist><dict/></plist>");
    root.write("system/Applications/A.app/PlugIns/a/Info.plist",
               "<plist><dict><key>QFBundleIdentifier</key><string>a</string><key>KXExtension</key>"
               "<dict><key>KXExtensionProtocol</key><string>#Data</string></dict></dict></plist>");
    const DaemonProcess daemon{root.path(), {}};
    ASSERT_TRUE(daemon.awaitReady());
    VTDaemonClient client;
    const auto answer = [&](const std::function<void(VTDaemonClient::Reply)>& send) {
        std::promise<Dictionary> answered;
        send([&](const mox::Object& reply) { answered.set_value(*reply.view().toValue().dictionary()); });
        return answered.get_future().get();
    };
    const auto match = [&](const Dictionary& rules, std::uint64_t flags) {
        return answer([&](auto then) { client.matchPlugIns(rules, flags, then); });
    };
    const auto found = [&](const Dictionary& rules = {}) { return *match(rules, 0).array("matches"); };
    ASSERT_EQ(found().size(), 1U);
    EXPECT_EQ(found({{"KXExtensionIdentifier", "b"}}).size(), 0U);
    EXPECT_TRUE(match({}, VTDiscoverAll).contains("errorcode"));
    const Texts paths{application + "/PlugIns/a"}, applications{application};
    const std::vector<value::Uuid> uuids{*value::Uuid::parse(*found()[0].dictionary()->string("uuid"))};

    auto busy = std::optional{VTProcessAssertion::take("a")};
    const auto holdAll = [&](auto then) { client.holdPlugins(applications, VTHoldApplication, then); };
    EXPECT_TRUE(answer(holdAll).contains("conflicts")) << whyNot(*busy);
    busy.reset();
    const Dictionary held = answer(holdAll);
    EXPECT_EQ(found().size(), 0U);
    EXPECT_EQ(answer([&](auto then) { client.releaseHold(*held.find("uuids")->uuid(), then); }), Dictionary{});
    const Dictionary choice{{"election", 1}};
    EXPECT_EQ(answer([&](auto then) { client.setPluginAnnotations(uuids, choice, then); }), Dictionary{});
    EXPECT_EQ(*found()[0].dictionary()->dictionary("annotations"), choice);
    EXPECT_EQ(answer([&](auto then) { client.accessPlugIns(uuids, 0, then); }).array("extensions")->size(), 1U);
    EXPECT_EQ(answer([&](auto then) { client.readyPlugIns(uuids, 0, then); }), Dictionary{});
    EXPECT_EQ(answer([&](auto then) { client.addPlugIns(paths, then); }), Dictionary{});
    EXPECT_EQ(answer([&](auto then) { client.removePlugIns(paths, then); }), Dictionary{});
    EXPECT_EQ(answer([&](auto then) { client.bulkPlugins(0, then); }), Dictionary{});
}

TEST(DaemonClient, TurnsRepliesIntoErrors) {
    using value::Error;
    const std::pair<Dictionary, std::optional<Error>> rows[] = {
        {{{"matches", Array{}}}, {}},
        {{{"errorcode", 14U}, {"error", "plug-ins are busy"}}, Error{"Velto", 14, "plug-ins are busy"}},
        {{{"errorcode", 9U}}, Error{"Velto", 9, "unknown error returned by Velto subsystem"}},
        {{{"errorcode", ~std::uint64_t{2}}, {"error", "m"}}, Error{"Velto", -3, "m"}},
        {{{"errorcode", std::uint64_t{7} << 32}}, {}},  // only the low 32 bits
    };
    for (const auto& [reply, error] : rows) EXPECT_EQ(VTDaemonClient::errorInReply(mox::Object{reply}), error);
    try {
        (void)VTDaemonClient::errorInReply(mox::Object{Dictionary{{"error", "lost"}}});
        FAIL();
    } catch (const VTInternalInconsistency& broken) {
        EXPECT_STREQ(broken.what(), "vtd reported error without a code: lost");
    }
}

TEST(DaemonClient, ConvertsValuesForItsOwnVersionOnly) {
    VTDaemonClient client{kNobody};
    const Value value{Dictionary{{"a", Array{1, 2U, true, 2.5, value::Data{}, value::Date{1}}}}};
    const auto message = VTDaemonClient::convertToMox(value, 3);
    const mox::View view{(*message)->data()};
    EXPECT_EQ(client.convertFromMox(view), value);
    EXPECT_EQ(client.convertFromMox(*view.message()), std::nullopt);
    client.setProtocolVersion(2);
    EXPECT_EQ(client.convertFromMox(view), std::nullopt);
    for (const std::int64_t version : {0, 2, 4}) EXPECT_EQ(VTDaemonClient::convertToMox(value, version), std::nullopt);
}

TEST(DaemonClient, AnUnreachableServiceIsAnErrorReplyOnTheReplyQueueAndALogLine) {
    support::LogLines log;
    VTDaemonClient client{kNobody};
    client.setReplyQueue(std::make_shared<queue::SerialQueue>("another"));
    std::promise<std::optional<value::Error>> answered;
    client.bulkPlugins(0, [&](const mox::Object& reply) {
        EXPECT_TRUE(client.replyQueue()->isCurrent());
        answered.set_value(VTDaemonClient::errorInReply(reply));
    });
    const auto error = answered.get_future().get();
    EXPECT_EQ(error->domain, "Velto");
    EXPECT_EQ(error->code, 4);
    EXPECT_TRUE(log.awaitLine("Communications error: "));
}
