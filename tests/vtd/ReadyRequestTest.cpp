#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <future>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Velto/VTDaemonClient.h"
#include "platform/plist/Plist.h"
#include "platform/services/Manager.h"
#include "tests/support/LogLines.h"
#include "tests/vtd/World.h"
#include "vtd/VTDPlugIn.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using value::Dictionary;
using value::Value;

// "ready" and "access" to a whole daemon in this process, over a real socket.
class ReadyRequest : public testing::Test {
protected:
    ReadyRequest() {
        install("one", {{"KXExtensionProtocol", "P"}});
        install("two", {{"KXExtensionProtocol", "P"}});
        install("data", {{"KXExtensionProtocol", "#Data"}});
        install("demanding", {{"KXExtensionProtocol", "P"}, {"KXExtensionHostEntitlement", "org.example.rare"}});
        server = World::get().serve(service);
        server->setCacheLimit(150);
        // The registry of the process notices what later tests install.
        for (VTDatabase::PlugIns plugIns; uuids.size() < 4; ::usleep(2000)) {
            plugIns = server->findPlugIns({}).value_or(VTDatabase::PlugIns{});
            for (const auto& plugIn : plugIns) uuids[plugIn->identifier()] = plugIn->uuid();
        }
    }

    void install(const std::string& name, const Dictionary& extension) const {
        root.write("system/PlugIns/" + name + "/Info.plist", *plist::writeXml(Dictionary{{"QFBundleIdentifier", name},
                                                                                         {"QFBundleVersion", "1"},
                                                                                         {"QFBundleExecutable", "run"},
                                                                                         {"KXExtension", extension}}));
        ::chmod(root.write("system/PlugIns/" + name + "/run", "#!/bin/sh\n").c_str(), 0755);
    }

    Value ask(const char* name, const std::vector<const char*>& plugIns) {
        std::vector<value::Uuid> named;
        for (const char* plugIn : plugIns) named.push_back(uuids.at(plugIn));
        mox::Dictionary message = client.request(name);
        VTDaemonClient::set(message, named);
        std::promise<Value> answer;
        client.send(message, [&](const mox::Object& reply) { answer.set_value(reply.view().toValue()); });
        return answer.get_future().get();
    }

    std::vector<std::string> registered() const {
        std::vector<std::string> names;
        std::error_code none;
        const std::string directory = root / ("run/services/" + std::to_string(::getpid()));
        for (const auto& entry : std::filesystem::directory_iterator{directory, none}) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    const support::TemporaryDirectory& root = World::get().root();
    const std::string service = testing::UnitTest::GetInstance()->current_test_info()->name();
    std::shared_ptr<VTDServer> server;
    std::map<std::string, value::Uuid> uuids;
    VTDaemonClient client{service};
};

TEST_F(ReadyRequest, RegistersThePlugInsNamedUnlessOneIsRefused) {
    EXPECT_EQ(ask("ready", {}), Value(Dictionary{}));
    EXPECT_EQ(ask("ready", {"data"}), Value(Dictionary{}));
    EXPECT_EQ(ask("ready", {"one", "demanding", "two"}),
              Value(Dictionary{{"errorcode", 11},
                               {"error",
                                "access to plugin demanding denied: the host does not have the "
                                "\"org.example.rare\" entitlement"}}));
    EXPECT_THAT(registered(), IsEmpty());

    support::LogLines log;
    EXPECT_EQ(ask("ready", {"one", "data", "one", "two"}), Value(Dictionary{}));
    EXPECT_THAT(registered(), ElementsAre("one@1.plist", "two@1.plist"));
    const auto lines = log.take();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](const auto& line) { return line.starts_with("enabling"); }),
              2);
}

TEST_F(ReadyRequest, IsUndoneByTheUninstall) {
    ASSERT_EQ(ask("ready", {"one", "two"}), Value(Dictionary{}));
    support::LogLines log;
    std::filesystem::remove_all(root / "system/PlugIns/one");
    ASSERT_TRUE(log.awaitLine("UNINSTALLED:one"));
    // What the daemon asks of the service manager is answered in order: this comes behind it.
    const auto asked = [&] {
        std::promise<int> answer;
        services::Manager::shared()->remove({"one", "1", {}}, server->mainQueue(),
                                            [&](int result) { answer.set_value(result); });
        return answer.get_future().get();
    };
    for (int tries = 0; tries < 500 && registered().size() > 1; ++tries) ::usleep(2000);
    EXPECT_THAT(registered(), ElementsAre("two@1.plist"));
    EXPECT_EQ(asked(), services::kNotRegistered);
    for (const auto& line : log.take()) EXPECT_EQ(line.find("PLUGIN REMOVAL"), std::string::npos) << line;

    // A registration that cannot be removed.
    const std::string directory = root / ("run/services/" + std::to_string(::getpid()));
    std::filesystem::remove(directory + "/two@1.plist");
    std::filesystem::create_directories(directory + "/two@1.plist/in the way");
    std::filesystem::remove_all(root / "system/PlugIns/two");
    EXPECT_TRUE(log.awaitLine("PLUGIN REMOVAL:two RESULT:21"));
    std::filesystem::remove_all(directory);
}

TEST_F(ReadyRequest, AccessGivesATokenForEachInOrder) {
    EXPECT_EQ(ask("access", {}), Value(Dictionary{{"extensions", value::Array{}}}));
    const Value reply = ask("access", {"two", "demanding", "two"});
    const value::Array* tokens = reply.dictionary()->array("extensions");
    ASSERT_NE(tokens, nullptr);
    ASSERT_EQ(tokens->size(), 3U);
    EXPECT_THAT(*(*tokens)[0].string(), testing::HasSubstr("PlugIns/two;"));
    EXPECT_THAT(*(*tokens)[1].string(), testing::HasSubstr("PlugIns/demanding;"));
    EXPECT_EQ((*tokens)[2], (*tokens)[0]);
}

}  // namespace
