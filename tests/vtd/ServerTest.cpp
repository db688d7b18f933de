#include "platform/mox/ClientConnection.h"
#include "tests/support/Words.h"
#include "tests/vtd/World.h"
#include "vtd/VTDServer.h"

namespace {

class ServerTest : public testing::Test {
protected:
    ServerTest()
        : service_{testing::UnitTest::GetInstance()->current_test_info()->name()},
          server_{World::get().serve(service_)},
          connection_{mox::ClientConnection::create(service_, std::make_shared<queue::SerialQueue>("client"))} {
        connection_->resume();
    }

    value::Value ask(const Dictionary& request) {
        mox::Dictionary message;
        for (const auto& [key, content] : request) message.set(key, content);
        std::promise<value::Value> replied;
        connection_->send(message, [&](const mox::Object& reply) { replied.set_value(reply.view().toValue()); });
        auto reply = replied.get_future();
        if (reply.wait_for(std::chrono::seconds{20}) != std::future_status::ready) return "no reply";
        return reply.get();
    }

    const std::string service_;
    const std::shared_ptr<VTDServer> server_;
    const std::shared_ptr<mox::ClientConnection> connection_;
};

TEST_F(ServerTest, AnswersWhatItDoesNotUnderstandWithTheReason) {
    const std::string version = "unsupported protocol version ", type = "invalid request format (missing type)";
    const struct {
        Dictionary request;
        int code;
        std::string error;
    } rows[] = {
        {{{"version", 1u}, {"request", "match"}}, 7, version + "1 (current 3)"},
        {{{"version", 4u}, {"request", "match"}}, 7, version + "4 (current 3)"},
        {{{"request", "match"}}, 7, version + "0 (current 3)"},
        {{{"version", "3"}, {"request", "match"}}, 7, version + "0 (current 3)"},
        {{{"version", 3}, {"request", "match"}}, 7, version + "0 (current 3)"},  // signed
        {{{"version", 0x1'0000'0003U}}, 7, version + "3 (current 3)"},
        {{{"version", ~std::uint64_t{0}}}, 7, version + "-1 (current 3)"},
        {{{"version", 2u}}, 4, type},
        {{{"version", 3u}, {"request", 1}}, 4, type},
        {{{"version", 3u}, {"request", "Match"}}, 4, "unrecognized request"},
        {{{"version", 2u}, {"request", ""}}, 4, "unrecognized request"},
        {{{"version", 3u}, {"request", "match\0"s}}, 4, "unrecognized request"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ask(row.request), (Dictionary{{"errorcode", row.code}, {"error", row.error}}));
    }
}

TEST_F(ServerTest, TellsAsMuchAsItIsVerbose) {
    const std::string pid = std::to_string(::getpid());
    const Dictionary request{{"version", 3u}, {"request", "unheard of"}};
    support::LogLines log;
    server_->setVerbose(1);
    ask(request);  // connects
    EXPECT_THAT(log.take(logging::Level::info),
                ElementsAre("client " + pid + " " + fs::read_symlink("/proc/self/exe").string(),
                            "client " + pid + " request unheard of"));
    server_->setVerbose(0);
    ask(request);
    EXPECT_THAT(log.take(), IsEmpty());
    server_->setVerbose(3);
    ask(request);
    EXPECT_THAT(log.take(),
                ElementsAre(AllOf(StartsWith("incoming request "), HasSubstr("unheard of")),
                            "client " + pid + " request unheard of",
                            AllOf(StartsWith("Replying "), HasSubstr("errorcode"), HasSubstr("unrecognized request"))));
    server_->setVerbose(1);
    connection_->cancel();
    EXPECT_TRUE(log.awaitLine("client " + pid + " is dead"));
}

}  // namespace
