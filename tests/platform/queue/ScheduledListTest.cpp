#include "platform/queue/ScheduledList.h"
#include "tests/support/Words.h"

namespace queue {
namespace {

TEST(ScheduledList, ServesHigherClassesFirstAndEachQueueOnce) {
    using enum QualityOfService;
    ScheduledList list;
    for (const auto quality : {background, standard, utility, userInteractive, standard, userInitiated}) {
        const auto queue = std::make_shared<SerialQueue::State>(std::to_string(list.size()), quality);
        list.push(queue);
        list.push(queue);
    }
    std::string order;
    while (const auto queue = list.pop()) order += queue->label;
    EXPECT_EQ(order, "351420");
}

}  // namespace
}  // namespace queue
