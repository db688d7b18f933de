#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <future>
#include <numeric>
#include <thread>

#include <gtest/gtest.h>

#include "Velto/VTDaemonClient.h"
#include "platform/file/UniqueFd.h"
#include "platform/plist/Plist.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/Words.h"
#include "tests/vtd/DaemonProcess.h"

namespace {

using namespace std::chrono_literals;

// The daemon, those who hold something and this client are each a process of its own.
class HoldProcesses : public testing::Test {
protected:
    HoldProcesses() {
        install("", "org.example.trip", false);
        for (const auto& name : {"a"s, "b"s}) {
            install("/PlugIns/" + name, "org.example." + name, Dictionary{{"KXExtensionProtocol", "#Data"}});
        }
        EXPECT_TRUE(daemon.awaitReady());
    }

    std::string path(const std::string& name) const { return root / ("user/Applications/Trip.app" + name); }
    void install(const std::string& name, const std::string& identifier, const Value& extension) const {
        const Dictionary info{{"QFBundleIdentifier", identifier}, {"KXExtension", extension}};
        root.write("user/Applications/Trip.app" + name + "/Info.plist", *plist::writeXml(info));
    }

    // Starts a process that holds something; its pid, once it does.
    pid_t start(const std::string& arguments) {
        const std::string command = "HALVERN_ROOT=" + root.path() + " exec " HOLDING_PROCESS " " + arguments;
        outputs.emplace_back(::popen(command.c_str(), "r"), ::pclose);
        pid_t pid = 0;
        EXPECT_EQ(std::fscanf(outputs.back().get(), "holds %d", &pid), 1) << command;
        return pid;
    }

    template <typename Send>
    Dictionary answerTo(Send&& send) {
        std::promise<Dictionary> answer;
        send([&](const mox::Object& reply) { answer.set_value(*reply.view().toValue().dictionary()); });
        return answer.get_future().get();
    }
    Dictionary hold(const std::string& held, std::uint64_t flags) {
        return answerTo([&, paths = Texts{held}](auto reply) { client.holdPlugins(paths, flags, reply); });
    }
    std::size_t found() {
        return answerTo([&](auto reply) { client.matchPlugIns({}, 0, reply); }).array("matches")->size();
    }
    std::string log() const {
        const Texts writes = daemon.takeWrites();
        return std::accumulate(writes.begin(), writes.end(), std::string{});
    }
    std::uint64_t posts() const {
        std::ifstream counter{root / "run/notify/halvern.velto.annotation-change"};
        std::uint64_t count = 0;
        counter >> count;
        return count;
    }

    const support::PrivateRoot root;
    DaemonProcess daemon{root.path(), {"-v"}};
    VTDaemonClient client;
    std::vector<std::unique_ptr<FILE, int (*)(FILE*)>> outputs;
};

TEST_F(HoldProcesses, ABusyPlugInKeepsItsApplicationFromBeingHeldUntilItsProcessEnds) {
    const pid_t busy = start("assert org.example.a");
    const file::UniqueFd incomplete{
        ::open(root.write("run/assertions/org.example.b/1", "org.example.bx").c_str(), O_RDWR | O_CLOEXEC)};
    struct flock whole {};
    whole.l_type = F_WRLCK;
    ASSERT_EQ(::fcntl(incomplete.get(), F_SETLK, &whole), 0);

    const Dictionary refusal{{"errorcode", 14},
                             {"error", "plug-ins are busy"},
                             {"conflicts", Array{Dictionary{{"ExtensionBundleIdentifier", "org.example.a"}}}}};
    EXPECT_EQ(hold(path(""), VTHoldApplication), refusal);
    EXPECT_THAT(log(), AllOf(HasSubstr("hold rejected. Busy plug-ins:(org.example.a)\n"),
                             HasSubstr("grevd reported incomplete bundle for plug-in org.example.b\n")));
    EXPECT_EQ(found(), 2u);
    EXPECT_TRUE(hold(path("/PlugIns/a"), VTHoldPlugIn).find("uuids")) << "busy or not";
    ::kill(busy, SIGKILL);
    ::pclose(outputs.back().release());  // waits for its end
    EXPECT_TRUE(hold(path(""), VTHoldApplication).find("uuids"));
    EXPECT_EQ(found(), 0u);
}

TEST_F(HoldProcesses, AKilledHoldersHoldsGoWithinMillisecondsThoughItsChildKeepsTheSocket) {
    // Holds, and milliseconds: of a thousand lines in the log a sanitizer takes its share.
    const std::pair<unsigned, double> rows[] = {{3, 10}, {1000, 200}};
    for (const auto& [count, limit] : rows) {
        std::chrono::duration<double, std::milli> quickest = std::chrono::hours{1};
        for (int round = 0; round < 4; ++round) {
            const pid_t holder = start(std::to_string(count) + " " + path("/PlugIns/a") + " " + path("/PlugIns/b"));
            EXPECT_EQ(found(), 0u) << "not before";
            const std::uint64_t before = posts();
            log();
            const auto start = std::chrono::steady_clock::now();
            ::kill(holder, SIGKILL);
            while (posts() < before + count && std::chrono::steady_clock::now() - start < 20s) {
                std::this_thread::sleep_for(100us);
            }
            quickest = std::min(quickest, decltype(quickest){std::chrono::steady_clock::now() - start});
            EXPECT_EQ(found(), 2u);
            EXPECT_EQ(posts(), before + count);
        }
        EXPECT_LT(quickest.count(), limit) << count << " holds";
        std::cout << count << " holds are gone " << quickest.count() << " ms after their process was killed\n";
    }
}

}  // namespace
