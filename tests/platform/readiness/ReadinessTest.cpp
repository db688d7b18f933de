#include "platform/readiness/Readiness.h"
#include "tests/support/BoundSocket.h"
#include "tests/support/Words.h"

namespace {

TEST(Readiness, IsToldToTheSocketThatTheServiceManagerNamedIfItNamedAny) {
    const support::TemporaryDirectory root;
    for (const std::string& name : {root / "ready", "@vtd-ready-" + std::to_string(::getpid())}) {
        const support::BoundSocket manager{name};
        ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
        EXPECT_FALSE(readiness::announce()) << name;
        EXPECT_EQ(manager.receive(), "READY=1") << name;
    }
    for (const std::string& name : {"relative"s, "/" + std::string(200, 'x'), "/nowhere/at/all"s}) {
        ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
        EXPECT_TRUE(readiness::announce()) << name;
    }
    ::unsetenv("NOTIFY_SOCKET");
    EXPECT_FALSE(readiness::announce());
}

}  // namespace
