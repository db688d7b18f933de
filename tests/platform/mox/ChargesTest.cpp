#include "platform/mox/Charges.h"
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

// Opens connections, whose peers have greeted, with one ledger, for the process given.
struct Opener {
    std::shared_ptr<Connection> operator()(ProcessKey process) const {
        auto connection = std::make_shared<Connection>();
        connection->account = ledger->open(process);
        if (!connection->account) return connection;
        connection->account->setHolder(connection);
        connection->account->setGreeted();
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

}  // namespace
}  // namespace mox
