#include "platform/mox/ClientConnection.h"
#include "tests/platform/mox/Peers.h"

namespace moxtest {
namespace {

// A client, and what it was told, in order: "answer N", the description of an error, "event: " and one.
class Asker {
public:
    Asker() {
        client->setEventHandler([this](const mox::Object& event) { add("event: " + mox::errorDescription(event)); });
    }
    // First the client goes, so that no event comes after; then what runs on its queue ends, and what that left behind.
    ~Asker() {
        client.reset();
        queue_->sync([] {});
        queue_->sync([] {});
    }

    void ask(int question) {
        mox::Dictionary request;
        request.set("question", question);
        client->send(request, [this](const mox::Object& reply) {
            last = reply;
            const auto answer = reply.view().find("answer");
            add(answer ? "answer " + value::description(answer->toValue()) : mox::errorDescription(reply));
        });
    }
    // All so far, once there is so much.
    Texts take(std::size_t count) {
        EXPECT_TRUE(notes_.await([&] { return told_.size() >= count; }));
        Texts taken;
        notes_.note([&] { taken.swap(told_); });
        return taken;
    }

private:
    void add(const std::string& text) {
        notes_.note([&] { told_.push_back(text); });
    }

    const std::shared_ptr<queue::SerialQueue> queue_ = std::make_shared<queue::SerialQueue>("client");
    Notebook notes_;
    Texts told_;

public:
    std::shared_ptr<mox::ClientConnection> client = mox::ClientConnection::create(kService, queue_);
    std::optional<mox::Object> last;  // reply
};

TEST(Client, GetsLargeRepliesAndDescriptorsWhole) {
    const World world;
    value::Data large(std::size_t{5} << 20);
    for (std::size_t at = 0; at < large.size(); ++at) large[at] = static_cast<std::byte>(at * 2654435761U >> 13);
    mox::Encoder encoder;
    encoder.value(large);
    Service service{{.fill = [encoded = std::make_shared<const Blob>(encoder.take())](mox::Reply& reply) {
        reply.setEncoded("large", encoded);
        reply.set("behind", "it");
        reply.attach(file::UniqueFd{::open("/proc/self/exe", O_RDONLY | O_CLOEXEC)});
    }}};
    Asker asker;
    asker.client->resume();
    for (int question = 0; question < 4; ++question) asker.ask(question);
    EXPECT_EQ(asker.take(4), (Texts{"answer 0", "answer 1", "answer 2", "answer 3"}));
    EXPECT_EQ(asker.last->view().find("large")->toValue(), Value{large});
    EXPECT_EQ(asker.last->view().find("behind")->string(), "it");
    ASSERT_TRUE(asker.last->descriptor());
    EXPECT_TRUE(fs::equivalent("/proc/self/exe", "/proc/self/fd/" + std::to_string(asker.last->descriptor()->get())));
}

TEST(Client, TellsWhyItLacksTheServiceAndConnectsAnewAtTheNextMessage) {
    const World world;
    Asker asker;
    asker.client->resume();
    asker.ask(1);
    const std::string why = "cannot reach service test.service: No such file or directory";
    EXPECT_EQ(asker.take(2), (Texts{why, "event: " + why}));
    {
        Service service{{.answersLater = true}};
        asker.ask(1);
        asker.ask(2);
        ASSERT_TRUE(service.await("request", 2));
    }
    EXPECT_THAT(asker.take(3), testing::Each(HasSubstr("connection to service test.service broke: ")));
    EXPECT_TRUE(mox::isError(*asker.last, mox::ErrorCode::connectionInterrupted));
    Service next;
    asker.ask(3);
    EXPECT_EQ(asker.take(1), Texts{"answer 3"});
    asker.client->announceTermination();
    asker.ask(4);
    EXPECT_EQ(asker.take(1), Texts{"answer 4"});
    EXPECT_EQ(next.takeEvents(), (Texts{"connected", "request", "leaving", "request"}));
}

TEST(Client, GivesEveryClosureItsReplyHoweverOrderedOrAnErrorWhenCancelledOrDropped) {
    const World world;
    Service service{{.answersLater = true}};
    Asker asker;
    for (int question : {1, 2, 3, 4}) asker.ask(question);  // before resume(): sent then
    asker.client->resume();
    ASSERT_TRUE(service.await("request", 4));
    for (std::size_t index : {2, 0, 1}) service.answer(index);
    EXPECT_EQ(asker.take(3), (Texts{"answer 3", "answer 1", "answer 2"}));
    asker.client->cancel();
    asker.ask(5);
    EXPECT_THAT(asker.take(3), testing::Each(HasSubstr("was cancelled")));
    asker.ask(6);
    EXPECT_THAT(asker.take(1), testing::Each(HasSubstr("was cancelled")));

    Asker dropped;
    dropped.ask(1);
    dropped.client.reset();
    EXPECT_EQ(dropped.take(1), Texts{"the connection to service test.service was given up"});
}

TEST(Client, BelievesNoServiceThatBreaksTheProtocol) {
    const World world;
    const Blob one{std::byte{1}, {}, {}, {}}, two{std::byte{2}, {}, {}, {}};
    const Blob hello = frame(FrameKind::hello, 0, one + Blob(16));
    const Blob empty = Blob{std::byte{9}, std::byte{4}} + Blob(7);  // a dictionary
    const Blob reply = frame(FrameKind::reply, 1, empty);
    Blob withFlag = reply;
    withFlag[5] = std::byte{1};
    const std::pair<Blob, const char*> rows[] = {
        {frame(FrameKind::hello, 0, two + Blob(16)), "version 2"},
        {frame(FrameKind::hello, 0, Blob(19)), "short hello"},
        {hello + hello, "second hello"},
        {hello + request(), "client's frame"},
        {hello + frame(FrameKind::reply, 2, empty), "no request"},
        {hello + reply + reply, ""},
        {hello + frame(FrameKind::reply, 1, Blob{std::byte{5}} + Blob(4)), "no dictionary"},
        {hello + frame(FrameKind::reply, 1, Blob(3)), "broke"},
        {hello + withFlag, "descriptor"},
        {hello + empty, "closed"},
    };
    const auto socket = mox::ServiceSocket::open(kService);
    for (const auto& [sent, error] : rows) {
        Asker asker;
        asker.client->resume();
        asker.ask(1);
        const file::UniqueFd peer{::accept((*socket)->get(), nullptr, nullptr)};
        ASSERT_EQ(::send(peer.get(), sent.data(), sent.size(), MSG_NOSIGNAL), sent.size());
        ::shutdown(peer.get(), SHUT_WR);
        EXPECT_THAT(asker.take(2), ElementsAre(HasSubstr(error), StartsWith("event: "))) << error;
    }
}

}  // namespace
}  // namespace moxtest
