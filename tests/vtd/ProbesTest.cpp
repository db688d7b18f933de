#include <algorithm>
#include <map>

#include "platform/mox/ClientConnection.h"
#include "tests/support/BoundSocket.h"
#include "tests/support/Words.h"
#include "tests/vtd/ProbeTracer.h"

namespace {

// Asks and hangs up. Ends the daemon, and so the trace, when it does not answer.
void beAClient(const support::BoundSocket& readiness, pid_t daemon) {
    bool served = readiness.receive(20'000) == "READY=1";
    const auto connection =
        mox::ClientConnection::create("halvern.velto.vtd", std::make_shared<queue::SerialQueue>("client"));
    connection->resume();
    for (const char* name : {"unheard of", "match", "add", "remove"}) {
        mox::Dictionary message;
        message.set("paths", Array{"/"});
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

    const support::PrivateRoot root;
    const std::string annotations = root.writeList("annotations", Dictionary{{"version", 15}});
    for (const std::string name : {"one", "two"}) {
        root.writeList(
            "system/PlugIns/" + name + ".bundle/Info.plist",
            Dictionary{{"QFBundleIdentifier", name}, {"KXExtension", Dictionary{{"KXExtensionProtocol", "p"}}}});
    }
    const support::BoundSocket readiness{root / "ready"};
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
