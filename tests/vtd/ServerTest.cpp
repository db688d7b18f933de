#include <unistd.h>

#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/mox/ClientConnection.h"
#include "tests/support/LogLines.h"
#include "tests/vtd/World.h"
#include "vtd/VTDServer.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using value::Dictionary;

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
    const std::string wrongVersion = "unsupported protocol version ";
    const struct {
        std::string_view name;
        Dictionary request;
        int code;
        std::string error;
    } rows[] = {
        {"version 1", {{"version", 1u}, {"request", "match"}}, 7, wrongVersion + "1 (current 3)"},
        {"version 4", {{"version", 4u}, {"request", "match"}}, 7, wrongVersion + "4 (current 3)"},
        {"no version", {{"request", "match"}}, 7, wrongVersion + "0 (current 3)"},
        {"version as text", {{"version", "3"}, {"request", "match"}}, 7, wrongVersion + "0 (current 3)"},
        {"version signed", {{"version", 3}, {"request", "match"}}, 7, wrongVersion + "0 (current 3)"},
        {"version beyond 32 bits", {{"version", 0x1'0000'0003U}}, 7, wrongVersion + "3 (current 3)"},
        {"the largest version", {{"version", ~std::uint64_t{0}}}, 7, wrongVersion + "-1 (current 3)"},
        {"nothing at all", {}, 7, wrongVersion + "0 (current 3)"},
        {"no request", {{"version", 3u}}, 4, "invalid request format (missing type)"},
        {"no request in version 2", {{"version", 2u}}, 4, "invalid request format (missing type)"},
        {"request of another kind", {{"version", 3u}, {"request", 1}}, 4, "invalid request format (missing type)"},
        {"unknown", {{"version", 3u}, {"request", "unheard of"}}, 4, "unrecognized request"},
        {"other case", {{"version", 3u}, {"request", "Match"}}, 4, "unrecognized request"},
        {"empty name", {{"version", 2u}, {"request", ""}}, 4, "unrecognized request"},
        {"longer name", {{"version", 3u}, {"request", std::string{"match\0", 6}}}, 4, "unrecognized request"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ask(row.request), (Dictionary{{"errorcode", row.code}, {"error", row.error}})) << row.name;
    }
}

TEST_F(ServerTest, TellsAsMuchAsItIsVerbose) {
    const std::string pid = std::to_string(::getpid());
    const Dictionary request{{"version", 3u}, {"request", "unheard of"}};
    support::LogLines log;
    server_->setVerbose(1);
    ask(request);  // connects
    EXPECT_THAT(log.take(logging::Level::info),
                ElementsAre("client " + pid + " " + std::filesystem::read_symlink("/proc/self/exe").string(),
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

TEST_F(ServerTest, FormatsNothingThatIsNotWritten) {
    struct Counting {
        int& made;
        std::string description() const { return std::to_string(++made); }
    };
    int made = 0;
    support::LogLines log;
    server_->debug("{}", Counting{made});
    server_->log("logged {}", Counting{made});
    server_->setVerbose(1);
    server_->debug("debugged {}", Counting{made});
    EXPECT_THAT(log.take(logging::Level::notice), ElementsAre("logged 1"));
    server_->debug("debugged {}", Counting{made});
    EXPECT_THAT(log.take(logging::Level::info), ElementsAre("debugged 3"));
}

TEST_F(ServerTest, IsKnownToEveryThread) {
    std::shared_ptr<VTDServer> seen;
    std::thread{[&] { seen = VTDServer::server(); }}.join();
    EXPECT_EQ(seen, server_);
}

TEST_F(ServerTest, SaysWhyItCannotListen) {
    const auto second = VTDServer::initForService(service_, World::get().root() / "other.annotations");
    ASSERT_TRUE(second);
    const auto error = second->run();
    ASSERT_TRUE(error);
    EXPECT_THAT(error->localizedDescription(), HasSubstr(service_));
}

}  // namespace
