#include <gmock/gmock.h>

// As the library's own, but a run that passed without everything having been tried exits with 77.
int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    const int failed = RUN_ALL_TESTS();
    return failed == 0 && testing::UnitTest::GetInstance()->skipped_test_count() > 0 ? 77 : failed;
}
