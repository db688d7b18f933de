#include <sys/resource.h>

#include <deque>

#include "platform/mox/Charges.h"
#include "platform/mox/transport/Descriptors.h"
#include "tests/support/Words.h"

namespace mox {
namespace {

struct Connection : Holder {
    void readAgain() override { ++resumed; }
    void endForExcess() override { ended = true; }
    void letGo() override { hasLetGo = ended; }

    std::shared_ptr<Account> account;  // null when it was refused
    int resumed = 0;
    bool ended = false;
    bool hasLetGo = false;
};

// Opens connections, whose peers have greeted unless told otherwise, with one ledger, for the process given.
struct Opener {
    std::shared_ptr<Connection> operator()(ProcessKey process, bool greeted = true) const {
        auto connection = std::make_shared<Connection>();
        connection->account = ledger->open(process);
        if (!connection->account) return connection;
        connection->account->setHolder(connection);
        if (greeted) connection->account->setGreeted();
        return connection;
    }
    std::shared_ptr<Ledger> ledger;
};

Opener underBounds(const Bounds& bounds) {
    return {std::make_shared<Ledger>(bounds)};
}

constexpr ProcessKey kFirst{10, 1};
constexpr ProcessKey kSecond{10, 2};  // the pid was reused

TEST(Charges, PauseWhoIsPastABoundUntilThingsGo) {
    const Opener connect = underBounds({});
    const auto a = connect(kFirst), b = connect(kFirst), other = connect(kSecond);
    {
        const Charge within{a->account, {.backlog = Bounds{}.connection.backlog}};
        EXPECT_TRUE(a->account->mayRead());
        const Charge beyond{a->account, {.backlog = 1}};
        EXPECT_FALSE(a->account->mayRead());
        EXPECT_TRUE(b->account->mayRead());
        const Charge ofTheProcess{a->account, {.backlog = Bounds{}.process.backlog}};
        EXPECT_FALSE(b->account->mayRead());
        EXPECT_TRUE(other->account->mayRead());
    }
    EXPECT_EQ(a->resumed + b->resumed, 2);
    const Charge waitsForThePeer{a->account, {.partial = Bounds{}.process.backlog + 1}};
    EXPECT_TRUE(a->account->mayRead());
}

TEST(Charges, EndTheGreatestConnectionOfTheGreatestProcessAtTheTotal) {
    const Opener connect = underBounds({.total = {.backlog = 100, .connections = 9}});
    const auto single = connect(kSecond), small = connect(kFirst), great = connect(kFirst);
    const Charge a{single->account, {.backlog = 40}};
    const Charge b{small->account, {.partial = 25}};
    const Charge c{great->account, {.kept = 30}};
    EXPECT_FALSE(great->ended);
    const Charge straw{single->account, {.backlog = 6}};
    EXPECT_TRUE(great->ended);
    const Charge room{single->account, {.backlog = 29}};  // what was ended counts no more
    EXPECT_FALSE(small->ended || single->ended);
}

TEST(Charges, AreReservedWithinEveryBoundAndWhoHoldsMostHasLetGoByThen) {
    const Opener connect = underBounds({.connection = {.backlog = 10},
                                        .process = {.backlog = 60, .connections = 9},
                                        .total = {.backlog = 100, .connections = 9}});
    const auto other = connect(kFirst), own = connect(kSecond);
    {
        Charge alone{own->account, {}};
        EXPECT_TRUE(alone.reserve({.backlog = 90})) << "nothing else waits";
    }
    const Charge unread{other->account, {.backlog = 60}};
    Charge reply{own->account, {}};
    EXPECT_TRUE(reply.reserve({.backlog = 40}));
    EXPECT_FALSE(other->ended);
    EXPECT_TRUE(reply.reserve({.backlog = 20}));
    EXPECT_TRUE(other->hasLetGo);
    EXPECT_FALSE(reply.reserve({.backlog = 1}));
    EXPECT_FALSE(own->ended);
}

TEST(Charges, RefuseOnlyTheProcessThatHasAllItsConnections) {
    const Opener connect = underBounds({.process = {.connections = 2}});
    const auto a = connect(kFirst), b = connect(kFirst);
    EXPECT_FALSE(connect(kFirst)->account);
    EXPECT_TRUE(connect(kSecond)->account);
    b->account->close();
    EXPECT_TRUE(connect(kFirst)->account);
}

// Where descriptors run out, so that one connection's are missing, who comes next gets them from whom.
TEST(Charges, MakeRoomAtTheCostOfWhoHoldsMostAndNeverOfWhoIsServedAlone) {
    constexpr ProcessKey kThird{11, 1};
    enum Who { first, second, third, nobody };
    struct Peer {
        ProcessKey process;
        Holdings held;
        bool greeted = true;
    };
    struct Case {
        std::string_view what;
        std::vector<Peer> peers;
        int asking;  // nobody: a newcomer
        int ended;
        Room room = Room::soon;
    };
    const Holdings busy{.requests = 1}, file{.backlog = 1, .descriptors = 1};
    const Case cases[] = {
        {"the oldest idle one", {{kFirst, busy}, {kSecond, {}}, {kThird, {}}}, nobody, second},
        {"a second connection", {{kFirst, {}}, {kSecond, busy}, {kSecond, busy}}, nobody, second},
        {"a second one before a new stranger", {{kFirst, {}, false}, {kSecond, {}}, {kSecond, {}}}, nobody, second},
        {"files not read", {{kFirst, {}}, {kSecond, busy}, {kThird, file}}, nobody, third},
        {"nobody who is served", {{kFirst, busy}, {kSecond, {}, false}, {kThird, busy}}, nobody, nobody},
        {"not who asks for less", {{kFirst, {}}, {kSecond, {}}, {kSecond, {}}}, first, second},
        {"nobody but who asks", {{kFirst, {}}, {kSecond, {}}, {kThird, file}}, third, nobody, Room::no},
    };
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    for (const Case& each : cases) {
        SCOPED_TRACE(each.what);
        const Opener connect = underBounds({});
        std::vector<std::shared_ptr<Connection>> peers;
        std::deque<Charge> charges;
        for (const Peer& peer : each.peers) {
            peers.push_back(connect(peer.process, peer.greeted));
            charges.emplace_back(peers.back()->account, peer.held);
        }
        const Account* const asking = each.asking == nobody ? nullptr : peers[each.asking]->account.get();
        rlimit low{128, before.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &low);
        low.rlim_cur -= static_cast<rlim_t>(freeDescriptors());  // 16 are kept back of either
        ::setrlimit(RLIMIT_NOFILE, &low);
        const Room room = connect.ledger->makeRoom(1, asking), again = connect.ledger->makeRoom(1, asking);
        ::setrlimit(RLIMIT_NOFILE, &before);
        EXPECT_EQ(room, each.room);
        EXPECT_EQ(again, each.room);
        for (int who = first; who < nobody; ++who) EXPECT_EQ(peers[who]->hasLetGo, who == each.ended) << who;
    }
}

}  // namespace
}  // namespace mox
