#include <cerrno>
#include <cstdlib>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "Velto/VTIssueReadExtension.h"
#include "Velto/VTSandboxExtension.h"
#include "platform/paths/Paths.h"
#include "platform/sandbox/Sandbox.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

constexpr char kService[] = "halvern.velto.sandbox-test";

// A sandbox service of this very process.
class SandboxExtension : public testing::Test {
protected:
    void SetUp() override {
        ::setenv("HALVERN_ROOT", root_.path().c_str(), 1);
        paths::setDirectories(paths::readDirectories());
        service_ = sandbox::Service::create(kService);
        ASSERT_EQ(service_->resume(), std::nullopt);
        sandbox::setDaemonServiceName(kService);
        file_ = root_.write("plug-in/file", "content");
    }

    bool opens(std::int64_t handle) const { return sandbox::openFile(handle, file_).ok(); }

    const support::TemporaryDirectory root_;
    std::shared_ptr<sandbox::Service> service_;
    std::string file_;
};

TEST_F(SandboxExtension, LastsFromConsumeToExpelOrTheEndOfItsHolder) {
    const auto token = VTIssueReadExtension(root_ / "plug-in");
    ASSERT_TRUE(token);
    std::optional<VTSandboxExtension> holder{std::in_place, *token};
    holder->expel();
    EXPECT_EQ(holder->handle(), 0);

    holder->consume();
    const std::int64_t first = holder->handle();
    EXPECT_TRUE(opens(first));
    holder->consume();
    EXPECT_EQ(holder->handle(), first);

    holder->expel();
    EXPECT_EQ(holder->handle(), 0);
    EXPECT_FALSE(opens(first));

    holder->consume();
    const std::int64_t second = holder->handle();
    EXPECT_TRUE(opens(second));
    holder.reset();
    EXPECT_FALSE(opens(second));
}

TEST_F(SandboxExtension, ARefusedTokenIsKeptAsTheHandleItGave) {
    VTSandboxExtension holder{"forged"};
    holder.consume();
    EXPECT_EQ(holder.handle(), -1);
    holder.expel();
    EXPECT_EQ(holder.handle(), 0);
}

TEST_F(SandboxExtension, ARefusalToIssueLeavesItsReasonInErrno) {
    errno = 0;
    EXPECT_EQ(VTIssueReadExtension(root_ / "nowhere"), std::nullopt);
    EXPECT_EQ(errno, ENOENT);
}

}  // namespace
