#include "platform/queue/ScheduledList.h"
#include "tests/support/Words.h"

namespace queue {
namespace {

TEST(ScheduledList, ServesHigherClassesFirstAndEachQueueOnce) {
    ScheduledList list;
    const auto push = [&](const char* label, QualityOfService quality) {
        auto queue = std::make_shared<SerialQueue::State>(label, quality);
        list.push(queue);
        list.push(std::move(queue));
    };
    push("f", QualityOfService::background);
    push("c", QualityOfService::standard);
    push("e", QualityOfService::utility);
    push("a", QualityOfService::userInteractive);
    push("d", QualityOfService::standard);
    push("b", QualityOfService::userInitiated);
    EXPECT_EQ(list.size(), 6U);

    std::string order;
    while (const auto queue = list.pop()) order += queue->label;
    EXPECT_EQ(order, "abcdef");
    EXPECT_EQ(list.size(), 0U);
}

}  // namespace
}  // namespace queue
