#include <chrono>
#include <future>
#include <memory>
#include <utility>
#include <variant>

#include <gtest/gtest.h>

#include "platform/mox/Connection.h"
#include "platform/sandbox/Sandbox.h"
#include "tests/support/PrivateRoot.h"

namespace sandbox {
namespace {

TEST(Patience, AHandleThatComesTooLateIsGivenBack) {
    const support::PrivateRoot root;
    std::promise<std::pair<std::shared_ptr<mox::Connection>, mox::Request>> asked;
    std::promise<std::int64_t> given;
    const auto service = mox::listen("test.slow.sandbox", std::make_shared<queue::SerialQueue>("slow"));
    service->setConnectionHandler([&](const std::shared_ptr<mox::Connection>& connection) {
        connection->setEventHandler([&, weak = std::weak_ptr{connection}](const mox::Event& event) {
            const auto* const request = std::get_if<mox::Request>(&event);
            if (request == nullptr) return;
            if (*request->view().find("request")->string() == "consume")
                return asked.set_value({weak.lock(), *request});
            given.set_value(request->view().find("handle")->signedInteger().value_or(0));
        });
        connection->resume();
    });
    ASSERT_FALSE(service->resume());
    setDaemonServiceName("test.slow");
    setPatience(std::chrono::milliseconds{20});
    EXPECT_EQ(consume("token"), -1);
    setPatience(std::chrono::seconds{10});

    const auto [peer, request] = asked.get_future().get();
    mox::Reply reply{request};
    reply.set("handle", 7);
    peer->send(reply);
    auto handle = given.get_future();
    ASSERT_EQ(handle.wait_for(std::chrono::seconds{20}), std::future_status::ready);
    EXPECT_EQ(handle.get(), 7);
    setDaemonServiceName("halvern.velto.vtd");
}

}  // namespace
}  // namespace sandbox
