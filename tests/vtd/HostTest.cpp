#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Velto/VTDaemonClient.h"
#include "Velto/VTSandboxExtension.h"
#include "platform/plist/Plist.h"
#include "platform/sandbox/Sandbox.h"
#include "tests/support/PrivateRoot.h"
#include "tests/vtd/DaemonProcess.h"

namespace {

using testing::UnorderedElementsAre;
using value::Array;
using value::Dictionary;
using value::Value;

namespace fs = std::filesystem;

// What a program prints, and its exit status behind that when it is not 0.
std::string outputOf(const std::string& command) {
    FILE* const program = ::popen((command + " 2>&1").c_str(), "r");
    std::string text;
    std::array<char, 4096> block;
    for (std::size_t got; (got = std::fread(block.data(), 1, block.size(), program)) > 0;)
        text.append(block.data(), got);
    const int status = ::pclose(program);
    return status == 0 ? text : text + "(status " + std::to_string(status >> 8) + ")";
}

// What a descriptor lent by the sandbox service shows, or why there is none.
std::string read(std::int64_t handle, const std::string& path) {
    const auto opened = sandbox::openFile(handle, path);
    if (!opened) return strerrorname_np(static_cast<int>(opened.error().code));
    std::array<char, 256> block;
    const ssize_t got = ::read(opened->get(), block.data(), block.size());
    return std::string{block.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0))};
}

// The installed daemon, and this process as a host of two plug-ins.
class Host : public testing::Test {
protected:
    Host() {
        // The daemon keeps others out by the mode of its directory; here they are to come as far as its door.
        ::chmod(root.path().c_str(), 0755);
        install("one");
        install("two");
        start();
        for (const char* name : {"one", "two"}) uuids[name] = find(name);
    }

    void install(const std::string& name) const {
        const Dictionary service{{"EnvironmentVariables", Dictionary{{"MODE", "x y"}}}, {"_SandboxProfile", "none"}};
        root.write("system/PlugIns/" + name + "/Info.plist",
                   *plist::writeXml(Dictionary{{"QFBundleIdentifier", name},
                                               {"QFBundleVersion", "1"},
                                               {"QFBundleExecutable", "run"},
                                               {"MoxService", service},
                                               {"KXExtension", Dictionary{{"KXExtensionProtocol", "P"}}}}));
        root.write("system/PlugIns/" + name + "/icon", "the icon of " + name);
        fs::copy_file("/usr/bin/env", bundle(name) + "/run");  // which prints its environment
    }

    void start() {
        daemon.emplace(root.path(), std::vector<std::string>{});
        if (!daemon->awaitReady()) throw std::runtime_error{"no daemon"};
    }

    Dictionary ask(const char* name, const Dictionary& keys) {
        mox::Dictionary message = client.request(name);
        for (const auto& [key, content] : keys) message.set(key, content);
        std::promise<Value> answer;
        client.send(message, [&](const mox::Object& reply) { answer.set_value(reply.view().toValue()); });
        const Value reply = answer.get_future().get();
        return reply.dictionary() != nullptr ? *reply.dictionary() : Dictionary{{"error", "no reply"}};
    }

    value::Uuid find(const std::string& name) {
        const Dictionary reply = ask("match", {{"rules", Dictionary{{"KXExtensionIdentifier", name}}}});
        return *value::Uuid::parse(*(*reply.array("matches"))[0].dictionary()->string("uuid"));
    }

    std::string token(const char* name) {
        const Dictionary reply = ask("access", {{"uuids", Array{uuids.at(name)}}});
        return *(*reply.array("extensions"))[0].string();
    }

    std::string bundle(const std::string& name) const { return fs::canonical(root.path()) / "system/PlugIns" / name; }
    std::string starter(const std::string& name) const {
        return "python3 " VTD_SOURCE_DIR "/examples/start.py '" + (root / "run") + "' " + std::to_string(::getpid()) +
               " '" + bundle(name) + "'";
    }
    bool registered(const std::string& name) const {
        return fs::exists(root / ("run/services/" + std::to_string(::getpid()) + "/" + name + "@1.plist"));
    }

    // This very program as another process: prints what the plug-in "one" shows it by itself, and through the token.
    std::string elsewhere(const std::string& how, const std::string& shown) const {
        const std::string self = fs::read_symlink("/proc/self/exe");
        const std::string output = outputOf(how + " env HALVERN_ROOT='" + root.path() + "' HOST_TEST_TOKEN='" + shown +
                                            "' HOST_TEST_FILE='" + bundle("one") + "/icon' '" + self +
                                            "' --gtest_filter='HostElsewhere.*' --gtest_also_run_disabled_tests");
        const std::size_t at = output.find("answer: ");
        return at == std::string::npos ? output : output.substr(at + 8, output.find('\n', at) - at - 8);
    }

    const support::PrivateRoot root;
    std::optional<DaemonProcess> daemon;
    VTDaemonClient client;
    std::map<std::string, value::Uuid> uuids;
};

// The other process of the tests below, and nothing by itself.
TEST(HostElsewhere, DISABLED_Reads) {
    paths::setDirectories(paths::readDirectories());
    const char* const path = std::getenv("HOST_TEST_FILE");
    VTSandboxExtension extension{std::getenv("HOST_TEST_TOKEN")};
    extension.consume();
    const char* const sight = std::ifstream{path} ? "seen" : "unseen";
    std::printf("\nanswer: %s, %s\n", sight,
                extension.handle() > 0 ? read(extension.handle(), path).c_str() : "refused");
}

TEST_F(Host, ReadsThePlugInThroughItsTokenWithoutSightOfIt) {
    const std::string hidden =
        "unshare -Urm sh -c 'mount -t tmpfs none \"$0\" && exec \"$@\"' '" + (root / "system") + "'";
    const std::string shown = token("one");
    EXPECT_EQ(elsewhere(hidden, shown), "unseen, the icon of one");
    EXPECT_EQ(elsewhere(hidden, shown.substr(0, shown.size() - 1)), "unseen, refused");

    if (::geteuid() == 0) {  // who else could become another user
        for (const char* door : {"run", "run/halvern.velto.vtd.sandbox"}) ::chmod((root / door).c_str(), 0777);
        EXPECT_EQ(elsewhere("setpriv --reuid 65534 --regid 65534 --clear-groups", shown), "seen, refused");
    }
    ::chmod((root / "run").c_str(), 0700);

    VTSandboxExtension extension{shown};
    extension.consume();
    const std::string icon = bundle("one") + "/icon";
    EXPECT_EQ(read(extension.handle(), icon), "the icon of one");
    fs::rename(bundle("one"), root / "moved");
    fs::create_directory_symlink(bundle("two"), root / "system/PlugIns/one");
    EXPECT_EQ(read(extension.handle(), root / "system/PlugIns/one/icon"), "ELOOP");

    daemon->stop();
    start();
    extension.expel();
    extension.consume();
    EXPECT_EQ(extension.handle(), -1) << "a token of an earlier run";
}

TEST_F(Host, HasWhatItReadiedStartedWithExactlyThatEnvironment) {
    EXPECT_THAT(outputOf(starter("one")), testing::HasSubstr("has not readied the plug-in"));
    ASSERT_EQ(ask("ready", {{"uuids", Array{uuids.at("one")}}}), Dictionary{});
    std::istringstream output{outputOf("LEAKED=1 " + starter("one"))};
    std::vector<std::string> lines;
    for (std::string line; std::getline(output, line);) lines.push_back(line);
    const std::string data = fs::canonical(root.path()) / "state/containers/one";
    EXPECT_THAT(lines, UnorderedElementsAre("MODE=x y", "HOME=" + data, "QFFIXED_USER_HOME=" + data,
                                            "TMPDIR=" + data + "/tmp"));
    EXPECT_EQ(outputOf(starter("one") + " printf %s argument"), "argument");

    fs::remove(bundle("one") + "/run");
    fs::create_symlink("/usr/bin/env", bundle("one") + "/run");
    EXPECT_THAT(outputOf(starter("one")), testing::EndsWith("(status 1)")) << "a link by now";
}

TEST_F(Host, KeepsItsRegistrationsOverARestartButForWhatIsGone) {
    ASSERT_EQ(ask("ready", {{"uuids", Array{uuids.at("one"), uuids.at("two")}}}), Dictionary{});
    daemon->stop();
    fs::remove_all(bundle("one"));
    EXPECT_TRUE(registered("one"));
    start();
    for (int tries = 0; tries < 2000 && registered("one"); ++tries) ::usleep(2000);
    EXPECT_FALSE(registered("one"));
    EXPECT_TRUE(registered("two"));
}

}  // namespace
