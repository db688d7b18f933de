#include "platform/readiness/Readiness.h"
#include "tests/support/BoundSocket.h"
#include "tests/support/Words.h"

namespace {

TEST(Readiness, IsToldToTheSocketThatTheServiceManagerNamedIfItNamedAny) {
    const support::TemporaryDirectory root;
    const auto announced = [](const std::string& name) {
        ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
        return !readiness::announce();
    };
    const support::BoundSocket manager{root / "ready"};
    EXPECT_TRUE(announced(root / "ready"));
    EXPECT_EQ(manager.receive(), "READY=1");
    for (const std::string& name : {"relative"s, "/" + std::string(200, 'x'), "/nowhere/at/all"s})
        EXPECT_FALSE(announced(name)) << name;
    ::unsetenv("NOTIFY_SOCKET");
    EXPECT_FALSE(readiness::announce());
}

}  // namespace
