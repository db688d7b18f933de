#include <fcntl.h>

#include <latch>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/file/UniqueFd.h"
#include "tests/support/LogLines.h"
#include "tests/vtd/FakePeer.h"
#include "tests/vtd/World.h"
#include "vtd/Transaction.h"
#include "vtd/VTDMoxClient.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using value::Dictionary;

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
    const struct {
        std::string_view value;
        bool has;
    } rows[] = {{"<true/>", true},
                {"<false/>", false},
                {"<integer>0</integer>", false},
                {"<real>0</real>", false},
                {"<integer>2</integer>", true},
                {"<string></string>", true},
                {"<string>0</string>", true},
                {"<array/>", true},
                {"<dict/>", true}};
    const support::TemporaryDirectory bundle;
    bundle.write("Info.plist", "<plist version=\"1.0\"><dict/></plist>");
    const auto connectFromBundle = [&](const std::string& entitlements) {
        bundle.write("Entitlements.plist", entitlements);
        mox::PeerIdentity identity;
        identity.executablePath = bundle / "program";
        identity.bundlePath = bundle.path();
        identity.bundleDirectory = file::UniqueFd{::open(bundle.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
        connect(std::move(identity));
    };
    for (const auto& row : rows) {
        connectFromBundle("<plist version=\"1.0\"><dict><key>e</key>" + std::string{row.value} + "</dict></plist>");
        EXPECT_EQ(client_->hasEntitlement("e"), row.has) << row.value;
        EXPECT_FALSE(client_->hasEntitlement("other"));
    }
    EXPECT_THAT(log_.take(), IsEmpty());

    connectFromBundle("torn");
    EXPECT_FALSE(client_->hasEntitlement("e"));
    EXPECT_THAT(log_.take(logging::Level::notice), Contains("error retrieving entitlements for pid 4711"));
}

// Which paths a handler was given, and what the peer was then told.
struct PathsRow {
    std::string_view name;
    std::optional<value::Value> paths;
    std::vector<std::string> seen;  // "+" before a resolved one
    std::int64_t code;              // 0: success
    std::string_view message;
};

TEST_F(ClientTest, PathsGoToTheHandlerUpToTheFirstThatIsMalformed) {
    const support::TemporaryDirectory directory;
    const std::string file = directory.write("sub/file", "");
    std::filesystem::create_symlink("sub", directory / "link");
    const std::string missing = "/no/such/thing";
    const PathsRow rows[] = {
        {"missing", std::nullopt, {}, 4, "invalid request format"},
        {"no array", value::Value{"/a"}, {}, 4, "invalid request format"},
        {"empty", value::Array{}, {}, 0, ""},
        {"resolved", value::Array{directory / "link/../link/./file"}, {"+" + file}, 0, ""},
        {"unresolved as sent", value::Array{"/no/../such//thing"}, {"-/no/../such//thing"}, 0, ""},
        {"relative",
         value::Array{missing, "relative/x", "/b"},
         {"-" + missing},
         9,
         "absolute path required: relative/x"},
        {"empty path", value::Array{""}, {}, 9, "absolute path required: "},
        {"a number", value::Array{missing, 5, "/b"}, {"-" + missing}, 4, "invalid request format"},
        {"refused by the handler", value::Array{"/refused", "/b"}, {"-/refused"}, 2, "refused"},
        {"a NUL inside", value::Array{std::string{"/\0x", 3}}, {std::string{"-/\0x", 4}}, 0, ""},
        {"too long", value::Array{"/" + std::string(5000, 'x')}, {"-/" + std::string(5000, 'x')}, 0, ""},
    };
    for (const PathsRow& row : rows) {
        SCOPED_TRACE(row.name);
        const Dictionary request = Dictionary{}.changing("paths", row.paths);
        Transaction transaction{mox::Request{mox::Object{request}, nullptr}, client_};
        std::vector<std::string> seen;
        const bool all = transaction.processPaths([&](const std::string& path, bool resolved) {
            seen.push_back((resolved ? "+" : "-") + path);
            if (path != "/refused") return true;
            transaction.fail(2, "refused");
            return false;
        });
        EXPECT_EQ(seen, row.seen);
        EXPECT_EQ(all, row.code == 0);
        const auto replies = peer_->takeReplies();
        ASSERT_EQ(replies.size(), 1u);
        Dictionary expected;
        if (row.code != 0) expected = {{"errorcode", row.code}, {"error", row.message}};
        EXPECT_EQ(replies.front(), expected);
    }
}

TEST_F(ClientTest, ErrorsBringTheirOwnCodeWhenTheyAreOfTheSystem) {
    const struct {
        std::string_view name;
        value::Error error;
        std::uint64_t code;
        std::optional<std::string> message;
    } rows[] = {
        {"own", {"Velto", 12, "why"}, 12, "why"},
        {"own, without a message", {"Velto", 12, {}}, 12, {}},
        {"own, negative", {"Velto", -1, "why"}, 0xFFFF'FFFF'FFFF'FFFFU, "why"},
        {"foreign", {"posix", 5, "why"}, 4, "why"},
        {"foreign, without a message", {"posix", 5, {}}, 4, "posix error 5"},
        {"not UTF-8", {"Velto", 2, "/caf\xE9"}, 2, "/caf\uFFFD"},
    };
    for (const auto& row : rows) {
        Transaction{mox::Request{mox::Object{kUnknown}, nullptr}, client_}.fail(4, row.error);
        Dictionary expected{{"errorcode", row.code}};
        if (row.message) expected = expected.changing("error", *row.message);
        EXPECT_THAT(peer_->takeReplies(), ElementsAre(expected)) << row.name;
    }
}

}  // namespace
