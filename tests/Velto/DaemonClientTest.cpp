#include "Velto/VTAssertion.h"
#include "Velto/VTDaemonClient.h"
#include "tests/support/Words.h"

namespace {

value::Error veltoError(std::int64_t code, std::string message) {
    return {"Velto", code, std::move(message)};
}

constexpr char kNobody[] = "halvern.velto.nobody";

// Keeps the requests that the client sends, and answers each where it is sent: not on the client's queue.
class RecordingConnection : public mox::ClientConnection {
public:
    void setEventHandler(EventHandler) override {}
    void resume() override {}
    void announceTermination() override {}
    void cancel() override {}
    std::string description() const override { return "recording"; }
    const queue::SerialQueue& queue() const override { return queue_; }
    void send(const mox::Dictionary& message, ReplyHandler reply) override {
        sent.push_back(message.toObject().view().toValue());
        reply(mox::Object{Dictionary{}});
    }

    std::vector<Value> sent;

private:
    const queue::SerialQueue queue_{"recording"};
};

}  // namespace

TEST(DaemonClient, BuildsTheRequestsThatTheDaemonKnows) {
    VTDaemonClient client{kNobody};
    const auto connection = std::make_shared<RecordingConnection>();
    client.setVtd(connection);
    const std::vector<std::string> paths{"/a", "/b"};
    const std::vector<value::Uuid> uuids{value::Uuid::random(), value::Uuid::random()};
    const Dictionary structured{{"k", Array{1, value::Date{2}}}};
    std::latch replies{9};
    const auto count = [&](const mox::Object&) {
        EXPECT_TRUE(client.replyQueue()->isCurrent());
        replies.count_down();
    };

    client.addPlugIns(paths, count);
    client.removePlugIns(paths, count);
    client.bulkPlugins(5, count);
    client.readyPlugIns(uuids, 1, count);
    client.accessPlugIns(uuids, 2, count);
    client.matchPlugIns(structured, VTDiscoverAll, count);
    client.setPluginAnnotations(uuids, structured, count);
    client.holdPlugins(paths, VTHoldPlugIn, count);
    client.releaseHold(uuids[0], count);
    replies.wait();

    const Array pathValues{"/a", "/b"};
    const Array uuidValues{uuids[0], uuids[1]};
    const auto request = [](const char* name, const Dictionary& rest) {
        return Value{rest.changing("request", name).changing("version", 3)};
    };
    EXPECT_THAT(connection->sent,
                ElementsAre(request("add", {{"paths", pathValues}}), request("remove", {{"paths", pathValues}}),
                            request("bulk", {{"flags", 5}}), request("ready", {{"uuids", uuidValues}, {"flags", 1}}),
                            request("access", {{"uuids", uuidValues}, {"flags", 2}}),
                            request("match", {{"rules", structured}, {"flags", 0x200}}),
                            request("annotate", {{"uuids", uuidValues}, {"annotations", structured}}),
                            request("lock", {{"paths", pathValues}, {"flags", 2}}),
                            request("lock", {{"uuids", Array{uuids[0]}}})));
    for (const Value& message : connection->sent) {
        EXPECT_EQ(message.dictionary()->find("version")->kind(), value::Kind::unsignedInteger);
    }
    client.setProtocolVersion(2);
    EXPECT_EQ(client.request("bulk").toObject().view().find("version")->unsignedInteger(), 2U);
}

TEST(DaemonClient, TurnsRepliesIntoErrors) {
    const std::pair<Dictionary, std::optional<value::Error>> rows[] = {
        {{}, {}},
        {{{"matches", Array{}}}, {}},
        {{{"errorcode", 14U}, {"error", "plug-ins are busy"}}, veltoError(14, "plug-ins are busy")},
        {{{"errorcode", 9U}}, veltoError(9, "unknown error returned by Velto subsystem")},
        {{{"errorcode", ~std::uint64_t{2}}, {"error", "m"}}, veltoError(-3, "m")},
        {{{"errorcode", std::uint64_t{7} << 32}}, {}},  // only the low 32 bits
    };
    for (const auto& [reply, error] : rows) EXPECT_EQ(VTDaemonClient::errorInReply(mox::Object{reply}), error);

    const auto failed = VTDaemonClient::errorInReply(mox::Object{value::Error{"mox", 1, "no such service"}});
    EXPECT_EQ(failed->domain, "Velto");
    EXPECT_EQ(failed->code, 4);
    EXPECT_THAT(*failed->message, testing::HasSubstr("no such service"));

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

TEST(DaemonClient, AnUnreachableServiceIsAnErrorReplyAndALogLine) {
    support::LogLines log;
    VTDaemonClient client{kNobody};
    std::promise<std::optional<value::Error>> answered;
    client.bulkPlugins(0, [&](const mox::Object& reply) { answered.set_value(VTDaemonClient::errorInReply(reply)); });
    EXPECT_EQ(answered.get_future().get()->code, 4);
    EXPECT_TRUE(log.awaitLine("Communications error: "));
}
