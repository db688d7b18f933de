#include <latch>
#include <string>

#include <gtest/gtest.h>

#include "platform/queue/Turns.h"

namespace queue {
namespace {

TEST(Turns, GoToProcessesAndThenToTheirLanesAndKeepTheOrderOfEach) {
    SerialQueue queue{"test"};
    const auto turns = std::make_shared<Turns>(queue);
    std::string order;
    {
        Turns::Lane a{turns, {1, 1}}, b{turns, {1, 1}}, reused{turns, {1, 2}}, late{turns, {2, 1}}, dead{turns, {3, 1}};
        const auto work = [&order](char name) { return [&order, name] { order += name; }; };
        std::latch go{1};
        queue.async([&go] { go.wait(); });
        a.async(work('a'));
        a.async([&] { a.asyncNext(work('b')); });  // what goes on is in its place
        for (const char name : {'c', 'd'}) a.async(work(name));
        for (const char name : {'1', '2'}) b.async(work(name));
        reused.async(work('R'));
        const auto ticket = late.asyncWhenReady(work('l'));
        late.async(work('m'));
        dead.async(work('X'));
        static_cast<void>(dead.asyncWhenReady(work('Y')));
        dead.drop();
        dead.ready(1);
        go.count_down();
        const auto ran = [&] { return queue.sync([&order] { return order.size(); }); };
        while (ran() < 7) continue;
        EXPECT_EQ(order, "aR12bcd");
        late.ready(ticket);
        while (ran() < 9) continue;
    }
    EXPECT_EQ(order, "aR12bcdlm");
}

}  // namespace
}  // namespace queue
