#include "Velto/VTIssueReadExtension.h"
#include "Velto/VTSandboxExtension.h"
#include "platform/sandbox/Sandbox.h"
#include "tests/support/Words.h"

TEST(SandboxExtension, LastsFromConsumeToExpelOrTheEndOfItsHolder) {
    constexpr char kService[] = "halvern.velto.sandbox-test";
    const support::PrivateRoot root;
    const auto service = sandbox::Service::create(kService);  // of this very process
    ASSERT_EQ(service->resume(), std::nullopt);
    sandbox::setDaemonServiceName(kService);
    const std::string file = root.write("plug-in/file", "content");
    const auto opens = [&](std::int64_t handle) { return sandbox::openFile(handle, file).ok(); };

    std::optional<VTSandboxExtension> holder{std::in_place, *VTIssueReadExtension(root / "plug-in")};
    holder->expel();
    EXPECT_EQ(holder->handle(), 0);
    holder->consume();
    const std::int64_t first = holder->handle();
    holder->consume();
    EXPECT_EQ(holder->handle(), first);
    EXPECT_TRUE(opens(first));
    holder->expel();
    EXPECT_FALSE(opens(first));
    holder->consume();
    const std::int64_t second = holder->handle();
    EXPECT_TRUE(opens(second));
    holder.reset();
    EXPECT_FALSE(opens(second));

    holder.emplace("forged");
    holder->consume();
    EXPECT_EQ(holder->handle(), -1) << "a refusal is kept as the handle it gave";
    holder->expel();
    EXPECT_EQ(holder->handle(), 0);
}
