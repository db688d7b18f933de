#include <poll.h>

#include "platform/mox/ClientConnection.h"
#include "platform/mox/ServiceSocket.h"
#include "tests/platform/mox/Peers.h"
#include "tests/support/Words.h"

namespace moxtest {
namespace {

using mox::wire::FrameKind;

// A client whose replies and events are kept as texts: "answer N", or the description of the error.
class ClientOfAService {
public:
    ClientOfAService() {
        client->setEventHandler([this](const mox::Object& event) {
            notes_.note([&] { events_.push_back(mox::errorDescription(event)); });
        });
    }
    // First the client goes, so that no event comes after; then what runs on its queue ends, and what that left behind.
    ~ClientOfAService() {
        client.reset();
        queue_->sync([] {});
        queue_->sync([] {});
    }

    void ask(int question) {
        mox::Dictionary request;
        request.set("question", question);
        client->send(request, [this](const mox::Object& reply) {
            std::string text = reply.isError() ? mox::errorDescription(reply) : "answer ";
            if (const auto answer = reply.view().find("answer"))
                text += std::to_string(answer->toValue().integerValue().value_or(-1));
            notes_.note([&] {
                replies_.push_back(text);
                last_ = reply;
            });
        });
    }

    Texts awaitReplies(std::size_t count) {
        EXPECT_TRUE(notes_.await([&] { return replies_.size() >= count; }));
        Texts taken;
        notes_.note([&] { taken.swap(replies_); });
        return taken;
    }
    Texts awaitEvents(std::size_t count) {
        EXPECT_TRUE(notes_.await([&] { return events_.size() >= count; }));
        return events_;
    }
    const mox::Object& last() const { return *last_; }

private:
    const std::shared_ptr<queue::SerialQueue> queue_ = std::make_shared<queue::SerialQueue>("client");

public:
    std::shared_ptr<mox::ClientConnection> client = mox::ClientConnection::create(Service::kName, queue_);

private:
    Notebook notes_;
    Texts replies_;
    Texts events_;
    std::optional<mox::Object> last_;
};

TEST(Client, GetsTheReplyToEachRequestInTheOrderOfAnswering) {
    World world;
    Service service{Service::Answers::later};
    ASSERT_FALSE(service.start());
    ClientOfAService asking;
    for (int question : {1, 2, 3}) asking.ask(question);  // before resume(): sent then
    asking.client->resume();
    ASSERT_TRUE(service.awaitRequests(3));
    for (std::size_t index : {2, 0, 1}) service.answer(index);
    EXPECT_EQ(asking.awaitReplies(3), (Texts{"answer 3", "answer 1", "answer 2"}));
}

TEST(Client, GetsLargeRepliesAndDescriptorsWhole) {
    World world;
    Service service;
    value::Data large(std::size_t{5} << 20);
    for (std::size_t at = 0; at < large.size(); ++at) large[at] = static_cast<std::byte>(at * 2654435761U >> 13);
    mox::Encoder encoder;
    encoder.value(large);
    const auto encoded = std::make_shared<const Blob>(encoder.take());
    service.fill = [&](mox::Reply& reply) {
        reply.setEncoded("large", encoded);
        reply.set("behind", "it");
        reply.attach(file::UniqueFd{::open("/proc/self/exe", O_RDONLY | O_CLOEXEC)});
    };
    ASSERT_FALSE(service.start());
    ClientOfAService asking;
    asking.client->resume();
    for (int question = 0; question < 6; ++question) asking.ask(question);
    EXPECT_EQ(asking.awaitReplies(6), (Texts{"answer 0", "answer 1", "answer 2", "answer 3", "answer 4", "answer 5"}));
    EXPECT_EQ(asking.last().view().find("large")->toValue(), value::Value{large});
    EXPECT_EQ(asking.last().view().find("behind")->string(), "it");
    ASSERT_TRUE(asking.last().descriptor());
    EXPECT_TRUE(fs::equivalent("/proc/self/exe", "/proc/self/fd/" + std::to_string(asking.last().descriptor()->get())));
}

TEST(Client, TellsWhyItLacksTheServiceAndConnectsAnewAtTheNextMessage) {
    World world;
    ClientOfAService asking;
    asking.client->resume();
    asking.ask(1);
    const std::string why = "cannot reach service test.service: No such file or directory";
    EXPECT_EQ(asking.awaitReplies(1), Texts{why});
    EXPECT_EQ(asking.awaitEvents(1), Texts{why});
    EXPECT_TRUE(mox::isError(asking.last(), mox::ErrorCode::connectionInvalid));
    {
        Service service{Service::Answers::later};
        ASSERT_FALSE(service.start());
        asking.ask(1);
        asking.ask(2);
        ASSERT_TRUE(service.awaitRequests(2));
    }
    EXPECT_THAT(asking.awaitReplies(2), SizeIs(2));
    EXPECT_TRUE(mox::isError(asking.last(), mox::ErrorCode::connectionInterrupted));
    EXPECT_THAT(asking.awaitEvents(2), SizeIs(2));
    Service next;
    ASSERT_FALSE(next.start());
    asking.ask(3);
    EXPECT_EQ(asking.awaitReplies(1), Texts{"answer 3"});
}

TEST(Client, AnnouncesThatItEndsAndIsServedOn) {
    World world;
    Service service;
    ASSERT_FALSE(service.start());
    ClientOfAService asking;
    asking.client->resume();
    asking.ask(1);
    EXPECT_EQ(asking.awaitReplies(1), Texts{"answer 1"});
    asking.client->announceTermination();
    asking.ask(2);
    EXPECT_EQ(asking.awaitReplies(1), Texts{"answer 2"});
    asking.client.reset();
    ASSERT_TRUE(service.awaitInvalid(1));
    EXPECT_EQ(service.events(), (Texts{"request", "error 3", "request", "error 1"}));
}

TEST(Client, GivesEveryClosureAnErrorWhenCancelledOrDropped) {
    World world;
    Service service{Service::Answers::later};
    ASSERT_FALSE(service.start());
    ClientOfAService asking;
    asking.client->resume();
    asking.ask(1);
    ASSERT_TRUE(service.awaitRequests(1));
    asking.client->cancel();
    asking.ask(2);
    EXPECT_EQ(asking.awaitReplies(2).size(), 2U);
    EXPECT_TRUE(mox::isError(asking.last(), mox::ErrorCode::connectionInvalid));

    ClientOfAService dropped;
    dropped.ask(1);
    dropped.client.reset();
    EXPECT_EQ(dropped.awaitReplies(1), Texts{"the connection to service test.service was given up"});
}

TEST(Client, BelievesNoServiceThatBreaksTheProtocol) {
    World world;
    const Blob hello = frame(FrameKind::hello, 0, Blob{std::byte{1}, {}, {}, {}} + Blob(16));
    const Blob text{std::byte{5}, {}, {}, {}, {}};
    const Blob empty = Blob{std::byte{9}, std::byte{4}} + Blob(7);  // a dictionary
    Blob withFlag = frame(FrameKind::reply, 1, empty);
    withFlag[5] = std::byte{1};
    const std::pair<Blob, const char*> rows[] = {
        {frame(FrameKind::hello, 0, Blob{std::byte{2}, {}, {}, {}} + Blob(16)), "version 2"},
        {frame(FrameKind::hello, 0, Blob(19)), "short hello"},
        {hello + hello, "second hello"},
        {hello + frame(FrameKind::request, 1, empty), "client's frame"},
        {hello + frame(FrameKind::reply, 2, empty), "no request"},
        {hello + frame(FrameKind::reply, 1, empty) + frame(FrameKind::reply, 1, empty), ""},
        {hello + frame(FrameKind::reply, 1, text), "no dictionary"},
        {hello + frame(FrameKind::reply, 1, Blob(3)), "broke"},
        {hello + withFlag, "descriptor"},
        {hello + empty, "closed"},
    };
    for (const auto& [sent, error] : rows) {
        auto socket = mox::ServiceSocket::open(Service::kName);
        ASSERT_TRUE(socket);
        ClientOfAService asking;
        asking.client->resume();
        asking.ask(1);
        pollfd ready{(*socket)->get(), POLLIN, 0};
        ASSERT_EQ(::poll(&ready, 1, 20'000), 1);
        const file::UniqueFd peer{::accept((*socket)->get(), nullptr, nullptr)};
        ASSERT_EQ(::send(peer.get(), sent.data(), sent.size(), MSG_NOSIGNAL), sent.size());
        ::shutdown(peer.get(), SHUT_WR);
        EXPECT_THAT(asking.awaitReplies(1), ElementsAre(HasSubstr(error)));
        EXPECT_THAT(asking.awaitEvents(1), SizeIs(1)) << error;
    }
}

}  // namespace
}  // namespace moxtest
