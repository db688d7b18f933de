#include "platform/file/UniqueFd.h"
#include "tests/support/Words.h"
#include "tests/vtd/FakePeer.h"
#include "tests/vtd/World.h"
#include "vtd/Transaction.h"
#include "vtd/VTDMoxClient.h"

namespace {

const Dictionary kUnknown{{"version", 3u}, {"request", "unheard of"}};

class ClientTest : public testing::Test {
protected:
    void SetUp() override {
        server_ = World::get().serve(testing::UnitTest::GetInstance()->current_test_info()->name());
        connect({});
    }

    void connect(mox::PeerIdentity identity) {
        peer_ = std::make_shared<FakePeer>(std::move(identity));
        client_ = VTDMoxClient::initWithConnection(peer_, server_);
    }

    void finishRequests() {
        server_->mainQueue()->sync([] {});
    }

    std::shared_ptr<VTDServer> server_;
    std::shared_ptr<FakePeer> peer_;
    std::shared_ptr<VTDMoxClient> client_;
    support::LogLines log_;
};

TEST_F(ClientTest, RequestsOfADeadPeerAreDroppedUnanswered) {
    server_->setVerbose(1);
    std::latch mayGoOn{1};
    server_->submitWork([&] { mayGoOn.wait(); });
    for (int i = 0; i < 3; ++i) peer_->deliver(kUnknown);
    EXPECT_TRUE(client_->acceptWork());
    peer_->deliver(mox::ErrorCode::connectionInvalid);
    EXPECT_FALSE(client_->acceptWork());
    mayGoOn.count_down();
    finishRequests();
    EXPECT_THAT(peer_->takeReplies(), IsEmpty());
    EXPECT_THAT(log_.take(), AllOf(Contains("client 4711 is dead"), Not(Contains(HasSubstr("unheard of")))));
}

TEST_F(ClientTest, APeerThatAnnouncesItsEndIsServedAllTheSame) {
    server_->setVerbose(1);
    peer_->deliver(mox::ErrorCode::terminationImminent);
    peer_->deliver(kUnknown);
    finishRequests();
    EXPECT_EQ(peer_->takeReplies().size(), 1u);
    EXPECT_THAT(log_.take(), ElementsAre("client 4711 termination imminent", "client 4711 request unheard of"));
}

TEST_F(ClientTest, WhatIsNoRequestIsLoggedAndIgnored) {
    peer_->deliver(mox::ErrorCode::connectionInterrupted);
    peer_->deliver(mox::Object{value::Value{"hello"}});
    EXPECT_THAT(log_.take(), ElementsAre(AllOf(StartsWith("unexpected error "), HasSubstr("as told")),
                                         AllOf(StartsWith("unexpected message "), HasSubstr("hello"),
                                               EndsWith(" on connection <fake>"))));
    for (int i = 0; i < 40; ++i) peer_->deliver(mox::Object{value::Value{"hello"}});
    EXPECT_EQ(log_.take().size(), 16u);  // a peer cannot fill the log
    peer_->deliver(kUnknown);
    finishRequests();
    EXPECT_EQ(peer_->takeReplies().size(), 1u);
}

TEST_F(ClientTest, CountsRequestsAndTellsEveryThousand) {
    server_->setVerbose(1);
    for (int i = 0; i < 2001; ++i) peer_->deliver(kUnknown);
    finishRequests();
    std::vector<std::string> counts;
    for (const std::string& line : log_.take(logging::Level::info)) {
        if (line.find(" used ") != std::string::npos) counts.push_back(line);
    }
    EXPECT_THAT(counts, ElementsAre("client 4711 used 1000 requests so far", "client 4711 used 2000 requests so far"));
    EXPECT_EQ(server_->mainQueue()->sync([this] { return client_->requestCount(); }), 2001u);
}

TEST_F(ClientTest, IsDescribedByItsConnectionWhileThereIsOne) {
    EXPECT_THAT(client_->description(), AllOf(StartsWith("<VTDMoxClient 0x"), EndsWith(" pid=4711 con=<fake>>")));
    const std::weak_ptr<VTDMoxClient> weak = client_;
    const Transaction transaction{mox::Request{mox::Object{kUnknown}, nullptr}, client_};
    client_.reset();
    EXPECT_FALSE(weak.expired()) << "the connection owns it";
    peer_.reset();
    EXPECT_THAT(transaction.client()->description(), EndsWith(" NO CONNECTION>"));
    EXPECT_EQ(transaction.client()->pid(), 0);
    EXPECT_EQ(transaction.connection(), nullptr);
}

TEST_F(ClientTest, HasAnEntitlementUnlessItsValueIsFalseOrZero) {
    const support::TemporaryDirectory bundle;
    bundle.writeList("Info.plist", Dictionary{});
    const auto connectFromBundle = [&] {
        mox::PeerIdentity identity;
        identity.executablePath = bundle / "program";
        identity.bundlePath = bundle.path();
        identity.bundleDirectory = file::UniqueFd{::open(bundle.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
        connect(std::move(identity));
    };
    const Dictionary held{{"true", true}, {"2", 2},           {"empty", ""},
                          {"0", "0"},     {"array", Array{}}, {"dict", Dictionary{}}};
    bundle.writeList("Entitlements.plist", held.changing("no", false).changing("zero", 0).changing("real", 0.0));
    connectFromBundle();
    for (const auto& entitlement : held) EXPECT_TRUE(client_->hasEntitlement(entitlement.key)) << entitlement.key;
    for (const char* lacked : {"no", "zero", "real", "other"}) EXPECT_FALSE(client_->hasEntitlement(lacked)) << lacked;
    EXPECT_THAT(log_.take(), IsEmpty());

    bundle.write("Entitlements.plist", "torn");
    connectFromBundle();
    EXPECT_FALSE(client_->hasEntitlement("true"));
    EXPECT_THAT(log_.take(logging::Level::notice), Contains("error retrieving entitlements for pid 4711"));
}

TEST_F(ClientTest, PathsGoToTheHandlerUpToTheFirstThatIsMalformed) {
    const support::TemporaryDirectory directory;
    const std::string file = directory.write("sub/file", ""), missing = "/no/such/thing", nul = "/\0x"s;
    const std::string format = "invalid request format", relative = "absolute path required: ";
    fs::create_symlink("sub", directory / "link");
    const struct {
        const char* name;
        std::optional<Value> paths;
        Texts seen;  // "+" before a resolved one
        std::int64_t code = 0;
        std::string message = {};
    } rows[] = {
        {"missing", std::nullopt, {}, 4, format},
        {"no array", Value{"/a"}, {}, 4, format},
        {"empty", Array{}, {}},
        {"resolved", Array{directory / "link/../link/./file"}, {"+" + file}},
        {"unresolved as sent", Array{"/no/../such//thing"}, {"-/no/../such//thing"}},
        {"relative", Array{missing, "relative/x", "/b"}, {"-" + missing}, 9, relative + "relative/x"},
        {"empty path", Array{""}, {}, 9, relative},
        {"a number", Array{missing, 5, "/b"}, {"-" + missing}, 4, format},
        {"refused by the handler", Array{"/refused", "/b"}, {"-/refused"}, 2, "refused"},
        {"a NUL inside", Array{nul}, {"-" + nul}},
        {"too long", Array{"/" + std::string(5000, 'x')}, {"-/" + std::string(5000, 'x')}},
    };
    for (const auto& row : rows) {
        const Dictionary request = Dictionary{}.changing("paths", row.paths);
        Transaction transaction{mox::Request{mox::Object{request}, nullptr}, client_};
        Texts seen;
        const bool all = transaction.processPaths([&](const std::string& path, bool resolved) {
            seen.push_back((resolved ? "+" : "-") + path);
            if (path == "/refused") transaction.fail(2, "refused");
            return path != "/refused";
        });
        EXPECT_EQ(seen, row.seen) << row.name;
        EXPECT_EQ(all, row.code == 0) << row.name;
        const Dictionary expected{{"errorcode", row.code}, {"error", row.message}};
        EXPECT_THAT(peer_->takeReplies(), ElementsAre(row.code == 0 ? Dictionary{} : expected)) << row.name;
    }
}

TEST_F(ClientTest, ErrorsBringTheirOwnCodeWhenTheyAreOfTheSystem) {
    const struct {
        value::Error error;
        std::uint64_t code;
        std::optional<std::string> message;
    } rows[] = {
        {{"Velto", 12, "why"}, 12, "why"},
        {{"Velto", 12, {}}, 12, {}},
        {{"Velto", -1, "why"}, 0xFFFF'FFFF'FFFF'FFFFU, "why"},
        {{"posix", 5, "why"}, 4, "why"},
        {{"posix", 5, {}}, 4, "posix error 5"},
        {{"Velto", 2, "/caf\xE9"}, 2, "/caf\uFFFD"},
    };
    for (const auto& row : rows) {
        Transaction{mox::Request{mox::Object{kUnknown}, nullptr}, client_}.fail(4, row.error);
        Dictionary expected{{"errorcode", row.code}};
        if (row.message) expected = expected.changing("error", *row.message);
        EXPECT_THAT(peer_->takeReplies(), ElementsAre(expected)) << row.error.localizedDescription();
    }
}

}  // namespace
