#include "Velto/VTAtomic.h"
#include "tests/support/Words.h"

TEST(Atomic, ReadersSeeWholeValuesWhileOthersStore) {
    const std::string texts[] = {std::string(100, 'a'), std::string(200, 'b')};
    VTAtomic<std::string> property{texts[0]};
    const auto store = [&](int which) {
        for (int i = 0; i < 20'000; ++i) property.store(texts[(i + which) % 2]);
    };
    std::thread one{store, 0};
    std::thread other{store, 1};
    bool whole = true;
    for (int i = 0; i < 20'000; ++i) {
        const std::string seen = property.load();
        whole = whole && (seen == texts[0] || seen == texts[1]);
    }
    one.join();
    other.join();
    EXPECT_TRUE(whole);
}
