#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/file/UniqueFd.h"
#include "platform/mox/ClientConnection.h"
#include "platform/paths/Paths.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/vtd/ProbeTracer.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

// The service manager's end of the readiness socket.
class Readiness {
public:
    explicit Readiness(const std::string& path) : socket_{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)} {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.data(), path.size());
        EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        const timeval patience{20, 0};
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    bool await() const {
        char text[16];
        return ::recv(socket_.get(), text, sizeof text, 0) > 0;
    }

private:
    const file::UniqueFd socket_;
};

// Asks and hangs up. Ends the daemon, and so the trace, when it does not answer.
void beAClient(const Readiness& readiness, pid_t daemon) {
    bool served = readiness.await();
    const auto connection =
        mox::ClientConnection::create("halvern.velto.vtd", std::make_shared<queue::SerialQueue>("client"));
    connection->resume();
    for (const char* name : {"unheard of", "match", "add", "remove"}) {
        mox::Dictionary message;
        message.set("paths", value::Array{"/"});
        message.set("version", 3u);
        message.set("request", name);
        std::promise<void> replied;
        connection->send(message, [&](const mox::Object&) { replied.set_value(); });
        served = served && replied.get_future().wait_for(std::chrono::seconds{20}) == std::future_status::ready;
    }
    connection->cancel();
    if (!served) ::kill(daemon, SIGKILL);
}

TEST(Probes, StandInTheProgramUnderTheirNamesAndFireWithTheirArguments) {
#ifndef __x86_64__
    GTEST_SKIP() << "the tracer knows one machine's registers";
#endif
    const std::vector<Probe> probes = listProbes(VTD_PROGRAM);
    for (const char* name : {"client-new", "client-done", "request-input", "request", "request-output", "db-load",
                             "discover-raw", "plugin-add", "plugin-remove", "plugin-ready"}) {
        EXPECT_EQ(std::count_if(probes.begin(), probes.end(),
                                [&](const Probe& probe) { return probe.provider == "vtd" && probe.name == name; }),
                  1)
            << name;
    }

    const support::TemporaryDirectory root;
    paths::setDirectories({root / "run", root / "state", root / "config", root / "user", root / "system", true});
    const std::string annotations = root.write(
        "annotations", "<plist version=\"1.0\"><dict><key>version</key><integer>15</integer></dict></plist>");
    for (const std::string name : {"one", "two"}) {
        root.write("system/PlugIns/" + name + ".bundle/Info.plist",
                   "<plist version=\"1.0\"><dict><key>QFBundleIdentifier</key><string>" + name +
                       "</string><key>QFBundleVersion</key><string>1</string><key>KXExtension</key><dict>"
                       "<key>KXExtensionPointIdentifier</key><string>point</string><key>KXExtensionProtocol</"
                       "key><string>p</string></dict></dict></plist>");
    }
    const Readiness readiness{root / "ready"};
    std::thread client;
    const std::vector<Fired> fired = traceProgram(
        VTD_PROGRAM, {"-d", annotations}, {"HALVERN_ROOT=" + root.path(), "NOTIFY_SOCKET=" + (root / "ready")}, probes,
        "client-done", [&](pid_t daemon) { client = std::thread{[&, daemon] { beAClient(readiness, daemon); }}; });
    client.join();

    std::vector<std::string> order;
    std::map<std::string, std::vector<FiredArgument>> first;
    for (const Fired& probe : fired) {
        order.push_back(probe.name);
        first.emplace(probe.name, probe.arguments);
    }
    EXPECT_THAT(order, ElementsAre("db-load", "client-new", "request-input", "request", "request-output",
                                   "request-input", "request", "discover-raw", "request-output", "request-input",
                                   "request", "plugin-add", "request-output", "request-input", "request",
                                   "plugin-remove", "request-output", "client-done"));
    EXPECT_EQ(first["db-load"].at(0).text, "Velto");
    EXPECT_EQ(first["db-load"].at(1).number, 7);
    for (const char* name : {"client-new", "client-done", "request-input", "request", "request-output"}) {
        EXPECT_EQ(first[name].at(0).number, ::getpid()) << name;
    }
    EXPECT_THAT(first["request-input"].at(1).text, HasSubstr("unheard of"));
    EXPECT_EQ(first["request"].at(1).text, "unheard of");
    EXPECT_THAT(first["request-output"].at(1).text, HasSubstr("unrecognized request"));
    ASSERT_THAT(first["discover-raw"], SizeIs(1));
    EXPECT_EQ(first["discover-raw"][0].number, 2);
    EXPECT_EQ(first["plugin-add"].at(0).text, "/");
    EXPECT_EQ(first["plugin-remove"].at(0).text, "/");
    EXPECT_EQ(first["plugin-remove"].at(1).number, 1);
}

}  // namespace
