#include "platform/mox/Charges.h"
#include "tests/support/Words.h"

namespace mox {
namespace {

class Connection : public Holder {
public:
    Connection(const std::shared_ptr<Ledger>& ledger, ProcessKey process) : account{ledger->open(process)} {}
    void readAgain() override { ++resumed; }
    void endForExcess() override { ended = true; }

    const std::shared_ptr<Account> account;
    int resumed = 0;
    bool ended = false;
};

std::shared_ptr<Connection> connect(const std::shared_ptr<Ledger>& ledger, ProcessKey process) {
    auto connection = std::make_shared<Connection>(ledger, process);
    if (connection->account) connection->account->setHolder(connection);
    return connection;
}

constexpr ProcessKey kFirst{10, 1};
constexpr ProcessKey kSecond{10, 2};  // the pid was reused

TEST(Charges, PauseWhoIsPastABoundUntilThingsGo) {
    const auto ledger = std::make_shared<Ledger>(Bounds{});
    const auto a = connect(ledger, kFirst), b = connect(ledger, kFirst), other = connect(ledger, kSecond);
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
    EXPECT_EQ(a->resumed, 1);
    EXPECT_EQ(b->resumed, 1);
    const Charge waitsForThePeer{a->account, {.partial = Bounds{}.process.backlog + 1}};
    EXPECT_TRUE(a->account->mayRead());
}

TEST(Charges, EndTheGreatestConnectionOfTheGreatestProcessAtTheTotal) {
    Bounds bounds;
    bounds.total.backlog = 100;
    const auto ledger = std::make_shared<Ledger>(bounds);
    const auto single = connect(ledger, kSecond);
    const auto small = connect(ledger, kFirst);
    const auto great = connect(ledger, kFirst);
    const Charge a{single->account, {.backlog = 40}};
    const Charge b{small->account, {.partial = 25}};
    const Charge c{great->account, {.kept = 30}};
    EXPECT_FALSE(great->ended);
    const Charge straw{single->account, {.backlog = 6}};
    EXPECT_TRUE(great->ended);
    EXPECT_FALSE(small->ended || single->ended);
    const Charge room{single->account, {.backlog = 29}};  // what was ended counts no more
    EXPECT_FALSE(small->ended || single->ended);
}

TEST(Charges, EndThoseWhoHaveNotAnsweredTheHelloFirst) {
    Bounds bounds;
    bounds.total.connections = 3;
    const auto ledger = std::make_shared<Ledger>(bounds);
    const auto a = connect(ledger, kFirst);
    const auto b = connect(ledger, kFirst);
    const auto stranger = connect(ledger, kSecond);
    a->account->setGreeted();
    b->account->setGreeted();
    const auto newcomer = connect(ledger, kFirst);
    EXPECT_TRUE(stranger->ended);
    EXPECT_FALSE(a->ended || b->ended || newcomer->ended);
}

TEST(Charges, RefuseOnlyTheProcessThatHasAllItsConnections) {
    Bounds bounds;
    bounds.process.connections = 2;
    bounds.total.connections = 3;
    const auto ledger = std::make_shared<Ledger>(bounds);
    const auto a = connect(ledger, kFirst);
    auto b = connect(ledger, kFirst);
    EXPECT_EQ(connect(ledger, kFirst)->account, nullptr);
    const auto c = connect(ledger, kSecond);
    const auto newcomer = connect(ledger, kSecond);
    EXPECT_TRUE(a->ended || b->ended || c->ended);
    EXPECT_FALSE(newcomer->ended);
    b->account->close();
    EXPECT_NE(connect(ledger, kFirst)->account, nullptr);
}

}  // namespace
}  // namespace mox
