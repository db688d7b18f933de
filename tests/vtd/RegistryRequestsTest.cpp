#include <unistd.h>

#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Velto/VTDaemonClient.h"
#include "platform/plist/Plist.h"
#include "tests/support/LogLines.h"
#include "tests/vtd/World.h"
#include "vtd/VTDAnnotationStore.h"
#include "vtd/VTDPlugIn.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using value::Array;
using value::Dictionary;
using value::Value;

// The requests that change something, to a whole daemon in this process over a real socket.
class RegistryRequests : public testing::Test {
protected:
    RegistryRequests() : server_{World::get().serve(service_)} { server_->setCacheLimit(150); }
    ~RegistryRequests() override { std::filesystem::remove_all(root_ / "user"); }

    // The error that the daemon answers, with the test's root cut out; empty for success.
    std::string ask(const char* name, const Dictionary& keys) {
        mox::Dictionary request = client_.request(name);
        for (const auto& [key, content] : keys) request.set(key, content);
        std::promise<std::string> answer;
        client_.send(request, [&](const mox::Object& reply) {
            const auto error = VTDaemonClient::errorInReply(reply);
            const std::size_t expected = error ? 2 : 0;
            EXPECT_EQ(reply.view().count(), expected);
            answer.set_value(error ? std::to_string(error->code) + " " + withoutRoot(error->localizedDescription())
                                   : "");
        });
        return answer.get_future().get();
    }

    // What was logged at notice level, without the notices of the registry.
    std::vector<std::string> logged() {
        std::vector<std::string> lines;
        for (const std::string& line : log_.take(logging::Level::notice)) {
            if (!line.starts_with("INSTALLED:") && !line.starts_with("UNINSTALLED:")) {
                lines.push_back(withoutRoot(line));
            }
        }
        return lines;
    }

    void install(const std::string& bundle, const Dictionary& info) const {
        root_.write(bundle + "/Info.plist", *plist::writeXml(info));
    }
    void installPlugIn(const std::string& bundle) const {
        install(bundle, {{"QFBundleIdentifier", std::filesystem::path{bundle}.stem().string()},
                         {"KXExtension", Dictionary{{"KXExtensionProtocol", "#Data"}}}});
    }

    std::vector<std::string> identifiers() const {
        std::vector<std::string> found;
        const auto plugIns = server_->findPlugIns({});
        for (const auto& plugIn : *plugIns) found.push_back(plugIn->identifier());
        return found;
    }

    const support::TemporaryDirectory& root_ = World::get().root();
    const std::string service_ = testing::UnitTest::GetInstance()->current_test_info()->name();
    const std::shared_ptr<VTDServer> server_;
    VTDaemonClient client_{service_};
    support::LogLines log_;

private:
    std::string withoutRoot(std::string text) const {
        const auto at = text.find(root_.path() + "/");
        return at == std::string::npos ? text : text.erase(at, root_.path().size() + 1);
    }
};

TEST_F(RegistryRequests, RegisterAndUnregisterByPath) {
    installPlugIn("user/elsewhere/lone");
    installPlugIn("user/elsewhere/A.app/PlugIns/inside");
    installPlugIn("user/Applications/B.app/PlugIns/scanned");
    install("user/elsewhere/plain", {{"QFBundleIdentifier", "plain"}});
    std::filesystem::create_directory_symlink("elsewhere", root_ / "user/link");
    ASSERT_TRUE(log_.awaitLine("INSTALLED:scanned"));
    log_.take();

    const auto failed = [](const std::string& path) { return "2 unable to register plug-in at " + path; };
    const auto logLine = [](const std::string& path) { return "failed to register plug-in at " + path; };
    const struct {
        const char* name;
        const char* request;
        std::vector<std::string> paths;
        std::string answer;
        std::vector<std::string> installed;
        std::string line;
    } rows[] = {
        {"nothing", "add", {}, "", {"scanned"}, ""},
        {"no such path", "add", {"user/none"}, "9 invalid plugin path: user/none", {"scanned"}, ""},
        {"no bundle", "add", {"user"}, failed("user"), {"scanned"}, logLine("user")},
        {"no plug-in",
         "add",
         {"user/elsewhere/plain"},
         failed("user/elsewhere/plain"),
         {"scanned"},
         logLine("user/elsewhere/plain")},
        {"one, then a bad one",
         "add",
         {"user/elsewhere/lone", "user/../user/none", "user/link/A.app/PlugIns/inside"},
         "9 invalid plugin path: user/../user/none",
         {"scanned", "lone"},
         ""},
        {"again, and one inside an application through a link",
         "add",
         {"user/elsewhere/lone/", "user/link/A.app/PlugIns/inside"},
         "",
         {"scanned", "inside", "lone"},
         ""},
        {"one that is found anyway",
         "add",
         {"user/Applications/B.app/PlugIns/scanned"},
         "",
         {"scanned", "inside", "lone"},
         ""},
        {"the registration of that",
         "remove",
         {"user/Applications/B.app/PlugIns/scanned"},
         "",
         {"scanned", "inside", "lone"},
         ""},
        {"what only lies there",
         "remove",
         {"user/Applications/B.app/PlugIns/scanned"},
         "9 no plugin at user/Applications/B.app/PlugIns/scanned",
         {"scanned", "inside", "lone"},
         ""},
        {"one, then a bad one, unregistered",
         "remove",
         {"user/link/lone", "user/none", "user/elsewhere/A.app"},
         "9 no plugin at user/none",
         {"scanned", "inside"},
         ""},
    };
    for (const auto& row : rows) {
        Array::Storage paths;
        for (const std::string& path : row.paths) paths.emplace_back(root_ / path);
        EXPECT_EQ(ask(row.request, {{"paths", Array{paths}}}), row.answer) << row.name;
        EXPECT_EQ(identifiers(), row.installed) << row.name;
        EXPECT_EQ(logged(), row.line.empty() ? std::vector<std::string>{} : std::vector{row.line}) << row.name;
    }
    // What is gone from the disk is still unregistered, by the path as it is sent.
    const std::string inside = root_ / "user/elsewhere/A.app/PlugIns/inside";
    std::filesystem::remove_all(inside);
    EXPECT_EQ(ask("remove", {{"paths", Array{root_ / "user/link/A.app/PlugIns/inside"}}}), "");
    EXPECT_EQ(ask("remove", {{"paths", Array{inside}}}), "9 no plugin at user/elsewhere/A.app/PlugIns/inside");
}

TEST_F(RegistryRequests, SayWhatIsMalformedAndDoNothing) {
    installPlugIn("user/elsewhere/lone");
    ASSERT_EQ(ask("add", {{"paths", Array{root_ / "user/elsewhere/lone"}}}), "");
    const value::Uuid known = server_->findPlugInAtPath(root_ / "user/elsewhere/lone")->uuid();
    const Dictionary election{{"election", 1}};
    const struct {
        const char* name;
        const char* request;
        Dictionary keys;
        std::string answer;
    } rows[] = {
        {"no paths", "add", {}, "4 invalid request format"},
        {"paths of another kind", "remove", {{"paths", "/a"}}, "4 invalid request format"},
        {"a path of another kind", "remove", {{"paths", Array{5, "/"}}}, "4 invalid request format"},
        {"a relative path", "add", {{"paths", Array{"relative/x"}}}, "9 absolute path required: relative/x"},
        {"no annotations",
         "annotate",
         {{"uuids", Array{known}}},
         "4 invalid request format (bad annotations dictionary)"},
        {"annotations of another kind",
         "annotate",
         {{"annotations", Array{}}, {"uuids", Array{known}}},
         "4 invalid request format (bad annotations dictionary)"},
        {"election of another kind",
         "annotate",
         {{"annotations", Dictionary{{"election", "1"}}}, {"uuids", Array{known}}},
         "4 invalid request format (annotation election)"},
        {"extension of another kind",
         "annotate",
         {{"annotations", Dictionary{{"election", 1}, {"extension", 1}}}, {"uuids", Array{known}}},
         "4 invalid request format (annotation extension)"},
        {"no UUIDs", "annotate", {{"annotations", election}}, "4 invalid request format (uuid)"},
        {"a UUID that is no array",
         "annotate",
         {{"annotations", election}, {"uuids", known}},
         "4 invalid request format (uuid)"},
        {"a UUID as text",
         "annotate",
         {{"annotations", election}, {"uuids", Array{known.string(), known}}},
         "4 invalid request (bad uuid array)"},
        {"no UUID at all", "annotate", {{"annotations", election}, {"uuids", Array{}}}, ""},
        {"nothing to set", "annotate", {{"annotations", Dictionary{{"unheard of", 1}}}}, ""},
    };
    log_.take();
    for (const auto& row : rows) {
        EXPECT_EQ(ask(row.request, row.keys), row.answer) << row.name;
        EXPECT_THAT(logged(), IsEmpty()) << row.name;
    }
    EXPECT_TRUE(server_->annotations()->annotations().empty());

    EXPECT_EQ(ask("bulk", {}), "");
    EXPECT_EQ(ask("bulk", {{"flags", 0xABCu}}), "");
    EXPECT_THAT(logged(), ElementsAre("bulk options 0x0 not supported", "bulk options 0xabc not supported"));
}

TEST_F(RegistryRequests, AnnotateWhatTheyNameUpToTheFirstThatIsUnknown) {
    std::vector<Value> uuids;
    for (const std::string name : {"a", "b", "c"}) {
        installPlugIn("user/elsewhere/" + name);
        ASSERT_EQ(ask("add", {{"paths", Array{root_ / ("user/elsewhere/" + name)}}}), "");
        uuids.emplace_back(server_->findPlugInAtPath(root_ / ("user/elsewhere/" + name))->uuid());
    }
    const Value unknown = value::Uuid::random();
    const std::string client = "client " + std::to_string(::getpid()) + " plug-in ";
    log_.take();

    EXPECT_EQ(ask("annotate", {{"annotations", Dictionary{{"election", 1}, {"other", 1}}}, {"uuids", Array{uuids}}}),
              "");
    EXPECT_THAT(logged(),
                ElementsAre(client + "a election := 1", client + "b election := 1", client + "c election := 1"));
    EXPECT_EQ(ask("annotate", {{"annotations", Dictionary{{"extension", Dictionary{{"x", 1}}}}},
                               {"uuids", Array{uuids[1], unknown, uuids[2]}}}),
              "4 no such plugin (uuid not found)");
    EXPECT_THAT(logged(), ElementsAre(client + "b election := (null)",
                                      "Dravo cannot find plug-in with UUID:" + unknown.uuid()->string()));
    EXPECT_EQ(ask("annotate", {{"annotations", Dictionary{{"election", false}}}, {"uuids", Array{uuids[2]}}}), "");
    EXPECT_THAT(logged(), ElementsAre(client + "c election := 0"));

    const auto stored = plist::readFile(server_->annotations()->annotationsURL());
    EXPECT_EQ(*stored->dictionary()->dictionary("data"),
              (Dictionary{{"a", Dictionary{{"election", 1}}},
                          {"b", Dictionary{{"election", 1}, {"extension", Dictionary{{"x", 1}}}}},
                          {"c", Dictionary{{"election", false}}}}));
}

}  // namespace
