#include <cstdio>

#include "platform/sandbox/Sandbox.h"
#include "tests/support/Words.h"

namespace sandbox {
namespace {

constexpr char kDaemon[] = "test.vtd";

class ServiceTest : public testing::Test {
protected:
    ServiceTest() {
        if (const char* given = getenv("SANDBOX_TEST_ROOT")) {
            paths::Directories directories = paths::directories();
            directories.runtime = given;
            paths::setDirectories(directories);
        }
        setDaemonServiceName(kDaemon);
    }
    ~ServiceTest() override { setDaemonServiceName("halvern.velto.vtd"); }  // forgets the connection

    std::string bundle() const { return root / "bundle"; }

    // What the file holds, as the service hands it over.
    static std::string read(std::int64_t handle, const std::string& path) {
        const auto opened = openFile(handle, path);
        if (!opened) return strerrorname_np(static_cast<int>(opened.error().code));
        std::array<char, 64> buffer{};
        const ssize_t size = ::read(opened->get(), buffer.data(), buffer.size());
        return size < 0 ? "unreadable" : std::string(buffer.data(), static_cast<std::size_t>(size));
    }

    static std::string token(const std::string& path) {
        return issueFileExtension(kReadOnlyFileClass, path).value_or("none");
    }

    const support::PrivateRoot root;
    const std::string file = root.write("bundle/Resources/icon", "an icon");
};

TEST_F(ServiceTest, LendsFilesForTokensAndNothingWithout) {
    const auto service = Service::create(kDaemon);
    const auto error = service->resume();
    ASSERT_FALSE(error) << error->localizedDescription();

    const std::int64_t handle = consume(token(bundle()));
    ASSERT_GT(handle, 0);
    EXPECT_EQ(read(handle, file), "an icon");
    EXPECT_EQ(read(handle, bundle()), "EISDIR");
    EXPECT_EQ(read(handle, "/etc/passwd"), "EACCES");
    EXPECT_EQ(read(handle + 1, file), "EBADF");

    for (const std::string& forged : {""s, "token"s, "\xff"s, std::string(9000, ';'), token(bundle()) + "0"}) {
        EXPECT_EQ(consume(forged), -1) << forged.substr(0, 80);
    }
    release(-1);
    release(0);
    EXPECT_EQ(read(handle, file), "an icon") << "none of which harmed the connection";

    const std::int64_t other = consume(token(file));
    ASSERT_GT(other, 0);
    EXPECT_NE(other, handle);
    release(handle);
    EXPECT_EQ(read(handle, file), "EBADF");
    EXPECT_EQ(read(other, file), "an icon");
}

TEST_F(ServiceTest, LendsToAnotherProcessThatShowsItsTokenAndTakesNoneOfThatOnesMaking) {
    const char* lent = getenv("SANDBOX_TEST_TOKEN");
    const char* path = getenv("SANDBOX_TEST_PATH");
    if (lent != nullptr && path != nullptr) {
        printf("\nanswer: %s\n", (read(consume(lent), path) + ", " + read(consume(token(path)), path)).c_str());
        return;
    }
    const auto service = Service::create(kDaemon);
    ASSERT_FALSE(service->resume());
    setenv("SANDBOX_TEST_ROOT", (root / "run").c_str(), 1);
    setenv("SANDBOX_TEST_TOKEN", token(bundle()).c_str(), 1);
    setenv("SANDBOX_TEST_PATH", file.c_str(), 1);
    const std::string self = fs::read_symlink("/proc/self/exe");
    FILE* other = popen(("'" + self + "' --gtest_filter=ServiceTest.LendsToAnother*").c_str(), "r");
    for (const char* name : {"SANDBOX_TEST_ROOT", "SANDBOX_TEST_TOKEN", "SANDBOX_TEST_PATH"}) unsetenv(name);
    ASSERT_NE(other, nullptr);
    std::string answer;
    for (std::array<char, 4096> line{}; fgets(line.data(), line.size(), other) != nullptr;) {
        if (std::string_view{line.data()}.starts_with("answer: ")) answer = line.data();
    }
    pclose(other);
    EXPECT_EQ(answer, "answer: an icon, EBADF\n");
}

TEST_F(ServiceTest, HandlesGoWithTheConnectionAndTheServiceMayComeBack) {
    EXPECT_EQ(consume(token(bundle())), -1) << "nobody serves";
    EXPECT_EQ(read(1, file), "ECONNRESET");
    auto service = Service::create(kDaemon);
    ASSERT_FALSE(service->resume());
    const std::int64_t handle = consume(token(bundle()));
    ASSERT_GT(handle, 0);
    setDaemonServiceName(kDaemon);  // another connection
    EXPECT_EQ(read(handle, file), "EBADF");

    const std::int64_t again = consume(token(bundle()));
    service.reset();
    service = Service::create(kDaemon);
    ASSERT_FALSE(service->resume());
    const std::string outcome = read(again, file);
    EXPECT_TRUE(outcome == "EBADF" || outcome == "ECONNRESET") << outcome;
    EXPECT_EQ(read(consume(token(bundle())), file), "an icon");
}

}  // namespace
}  // namespace sandbox
