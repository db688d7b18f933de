#include <set>
#include <variant>

#include "platform/mox/Connection.h"
#include "platform/sandbox/Extensions.h"
#include "platform/sandbox/Sandbox.h"
#include "tests/support/Words.h"

namespace sandbox {
namespace {

constexpr char kDaemon[] = "test.vtd";

// Tokens, and what the service lends for them, over its socket.
class ServiceTest : public testing::Test {
protected:
    ServiceTest() {
        root.write("bundle/Resources/icon", "icon");
        root.write("secret", "secret");
        setDaemonServiceName(kDaemon);
        serve();
    }
    ~ServiceTest() override { setDaemonServiceName("halvern.velto.vtd"); }  // forgets the connection

    void serve() {
        service = Service::create(kDaemon);
        EXPECT_EQ(service->resume(), std::nullopt);
    }

    static std::string token(const std::string& path) {
        return issueFileExtension(kReadOnlyFileClass, path).value_or("none");
    }

    // What the file holds, or the text of the error number.
    static std::string read(std::int64_t handle, const std::string& path) {
        const auto opened = openFile(handle, path);
        if (!opened) return strerrorname_np(static_cast<int>(opened.error().code));
        EXPECT_EQ(fcntl(opened->get(), F_GETFL) & O_ACCMODE, O_RDONLY);
        std::array<char, 64> buffer{};
        const ssize_t size = ::read(opened->get(), buffer.data(), buffer.size());
        return size < 0 ? "unreadable" : std::string(buffer.data(), static_cast<std::size_t>(size));
    }

    const support::PrivateRoot root;
    const std::string bundle = root / "bundle", info = root.write("bundle/Info.plist", "info");
    std::shared_ptr<Service> service;
};

TEST_F(ServiceTest, OpensRegularFilesBeneathTheTokensPathAndNothingElse) {
    fs::create_symlink("../secret", bundle + "/escape");
    fs::create_symlink("..", bundle + "/up");
    root.write("bundle2/file", "beside");
    const std::int64_t handle = consume(token(bundle));
    ASSERT_GT(handle, 0);
    const std::pair<std::string, const char*> rows[] = {
        {info, "info"},
        {bundle + "/Resources/icon", "icon"},
        {bundle + "/escape", "ELOOP"},
        {bundle + "/up/secret", "ELOOP"},
        {bundle + "/../secret", "EXDEV"},
        {bundle + "//etc/passwd", "EXDEV"},
        {root / "secret", "EACCES"},
        {"/etc/passwd", "EACCES"},
        {root / "bundle2/file", "EACCES"},
        {"Info.plist", "EACCES"},
        {"", "EACCES"},
        {info + "\0/x"s, "EINVAL"},
        {bundle, "EISDIR"},
        {bundle + "/missing", "ENOENT"},
    };
    for (const auto& [path, outcome] : rows) EXPECT_EQ(read(handle, path), outcome) << path;

    const std::int64_t one = consume(token(info));
    EXPECT_EQ(read(one, info + "/x"), "ENOTDIR");
    EXPECT_EQ(read(one, bundle + "/Resources/icon"), "EACCES");
    release(handle);
    EXPECT_EQ(read(handle, info), "EBADF");
    EXPECT_EQ(read(one, info), "info");
    fs::rename(root / "secret", info);
    EXPECT_EQ(read(one, info), "ESTALE");
}

TEST_F(ServiceTest, DoesNotFollowAPathThatWasSwappedAfterTheIssue) {
    const std::int64_t handle = consume(token(bundle)), deeper = consume(token(bundle + "/Resources"));
    fs::rename(bundle, root / "moved");
    EXPECT_EQ(read(handle, info), "ENOENT");
    fs::create_symlink("moved", bundle);
    EXPECT_EQ(read(handle, info), "ELOOP") << "though the link leads to the very directory";
    EXPECT_EQ(read(deeper, bundle + "/Resources/icon"), "ELOOP") << "nor a link above it";
    fs::remove(bundle);
    root.write("bundle/Info.plist", "another");
    EXPECT_EQ(read(handle, info), "ESTALE");
    fs::remove_all(bundle);
    fs::rename(root / "moved", bundle);
    EXPECT_EQ(read(handle, info), "info");
}

// A file system gives the inode number of what is gone to what comes next.
TEST_F(ServiceTest, DoesNotTakeWhatHasTheNumberOfADirectoryThatIsGoneForIt) {
    struct stat before {
    }, now{};
    const std::int64_t handle = consume(token(bundle));
    ASSERT_EQ(::stat(bundle.c_str(), &before), 0);
    fs::remove_all(bundle);
    const std::string spare = root / "spare";
    for (int i = 0; i < 100 && before.st_ino != now.st_ino; ++i) {
        fs::create_directory(bundle);
        ASSERT_EQ(::stat(bundle.c_str(), &now), 0);
        if (before.st_ino != now.st_ino) fs::rename(bundle, spare + std::to_string(i));
    }
    if (before.st_ino != now.st_ino) GTEST_SKIP() << "no number is given again here";
    root.write("bundle/Info.plist", "another");
    EXPECT_EQ(read(handle, info), "ESTALE");
}

TEST_F(ServiceTest, RefusesForgeriesAndMoreThanTheBound) {
    const std::string sound = token(bundle);
    for (const std::string& forged : {""s, "token"s, "\xff"s, std::string(9000, ';'), sound + "0"}) {
        EXPECT_EQ(consume(forged), kRefused) << forged.substr(0, 80);
    }
    for (const std::int64_t none : {std::int64_t{0}, kRefused}) {
        release(none);
        EXPECT_EQ(read(none, info), "EBADF");
    }
    std::set<std::int64_t> handles;
    for (std::size_t i = 0; i < kMostHandles; ++i) handles.insert(consume(sound));
    EXPECT_THAT(handles, SizeIs(kMostHandles));
    EXPECT_GT(*handles.begin(), 0);
    EXPECT_EQ(consume(sound), kRefused);
    release(*handles.begin());
    EXPECT_GT(consume(sound), 0);
}

TEST_F(ServiceTest, HandlesGoWithTheConnectionAndTheServiceMayComeBack) {
    const std::int64_t handle = consume(token(bundle));
    setDaemonServiceName(kDaemon);  // another connection
    EXPECT_EQ(read(handle, info), "EBADF");

    const std::int64_t again = consume(token(bundle));
    service.reset();
    EXPECT_EQ(consume(token(bundle)), kRefused) << "nobody serves";
    EXPECT_EQ(read(again, info), "ECONNRESET");
    serve();
    EXPECT_EQ(read(again, info), "EBADF");
    EXPECT_EQ(read(consume(token(bundle)), info), "info");
}

TEST_F(ServiceTest, AHandleThatComesTooLateIsGivenBack) {
    std::promise<std::pair<std::shared_ptr<mox::Connection>, mox::Request>> asked;
    std::promise<std::int64_t> given;
    const auto slow = mox::listen("test.slow.sandbox", std::make_shared<queue::SerialQueue>("slow"));
    slow->setConnectionHandler([&](const std::shared_ptr<mox::Connection>& connection) {
        connection->setEventHandler([&, weak = std::weak_ptr{connection}](const mox::Event& event) {
            const auto* const request = std::get_if<mox::Request>(&event);
            if (request == nullptr) return;
            const auto handle = request->view().find("handle");
            if (!handle) return asked.set_value({weak.lock(), *request});
            given.set_value(handle->signedInteger().value_or(0));
        });
        connection->resume();
    });
    ASSERT_FALSE(slow->resume());
    setDaemonServiceName("test.slow");
    setPatience(std::chrono::milliseconds{20});
    EXPECT_EQ(consume("token"), kRefused);
    setPatience(std::chrono::seconds{10});

    const auto [peer, request] = asked.get_future().get();
    mox::Reply reply{request};
    reply.set("handle", 7);
    peer->send(reply);
    EXPECT_EQ(given.get_future().get(), 7);
}

}  // namespace
}  // namespace sandbox
