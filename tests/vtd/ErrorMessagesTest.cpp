#include <sys/resource.h>

#include <cmath>
#include <fstream>
#include <map>
#include <new>
#include <regex>
#include <set>

#include <fnmatch.h>

#include "Velto/VTDaemonClient.h"
#include "platform/assertions/Assertions.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Mounts.h"
#include "tests/support/Words.h"
#include "tests/vtd/World.h"
#include "vtd/VTDAnnotationStore.h"
#include "vtd/VTDPlugIn.h"

namespace {

using value::Uuid;

const bool kOwnMounts = support::enterMountNamespace();

std::atomic<bool> noMemoryForUuids{false};

}  // namespace

// The program's own, for the one allocation whose failure is answered. The thread sanitizer lets nobody have one.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ALLOCATES_BY_ITSELF 0
#endif
#endif
#ifndef ALLOCATES_BY_ITSELF
#define ALLOCATES_BY_ITSELF 1
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    if (size == sizeof(Uuid) && noMemoryForUuids) return nullptr;
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
#endif

namespace {

// Every message that doc/wire.md lists, provoked over the real socket.
class ErrorMessages : public testing::Test {
protected:
    using Fault = std::shared_ptr<void>;

    ErrorMessages() {
        install("system/PlugIns/one", {{"KXExtensionProtocol", "P"}});
        install("system/PlugIns/demanding", {{"KXExtensionProtocol", "P"}, {"KXExtensionHostEntitlement", "rare"}});
        install("system/PlugIns/bare", {{"KXExtensionProtocol", "P"}});
        fs::remove(root / "system/PlugIns/bare/run");
        Dictionary::Builder many;
        for (int i = 0; i < 100; ++i) many.set("m" + std::to_string(i), Dictionary{{"KXExtensionProtocol", "P"}});
        install("system/PlugIns/many", {{"Multiple", std::move(many).build()}});
        install("user/Applications/A.app", {});
        install("user/Applications/A.app/PlugIns/inside", {{"KXExtensionProtocol", "P"}});
        server = World::get().serve("errors");
        server->setCacheLimit(150);
        for (VTDatabase::Search search; !search.isOver;) {
            const auto plugIns = server->findPlugIns({}, search).value_or(VTDatabase::PlugIns{});
            for (const auto& plugIn : plugIns) uuids[plugIn->identifier()] = plugIn->uuid();
        }
    }

    void install(const std::string& bundle, const Dictionary& extension) const {
        Dictionary info{{"QFBundleIdentifier", fs::path{bundle}.filename().string()}, {"QFBundleExecutable", "run"}};
        if (!extension.empty()) info = info.changing("KXExtension", extension);
        root.writeList(bundle + "/Info.plist", info);
        fs::permissions(root.write(bundle + "/run", "#!/bin/sh\n"), fs::perms::owner_all);
    }

    Fault readOnly(const std::string& directory) const {
        fs::create_directories(root / directory);
        const std::shared_ptr<support::Mount> mount{new support::Mount{support::Mount::small(root / directory, "64k")}};
        mount->setReadOnly(true);
        return mount;
    }

    static Fault noDescriptors() {
        rlimit limit{};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        const rlimit none{0, limit.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &none);
        return {nullptr, [limit](void*) { ::setrlimit(RLIMIT_NOFILE, &limit); }};
    }

    Value uuid(const char* plugIn) const { return Array{uuids.at(plugIn)}; }
    std::string named(const char* plugIn) const { return plugIn + ("(" + uuids.at(plugIn).string()) + ")"; }

    Dictionary ask(const Dictionary& request) {
        mox::Dictionary message;
        if (!request.contains("version")) message.set("version", 3u);
        for (const auto& [key, content] : request) message.set(key, content);
        std::promise<Dictionary> answer;
        client.send(message, [&](const mox::Object& reply) { answer.set_value(*reply.view().toValue().dictionary()); });
        return answer.get_future().get();
    }

    const support::TemporaryDirectory& root = World::get().root();
    // Forked while there is no other thread.
    const support::ChildProcess busy{[] {
        static const auto assertion = assertions::Assertion::take("inside");
        return whyNot(assertion);
    }};
    std::shared_ptr<VTDServer> server;
    std::map<std::string, Uuid> uuids;
    VTDaemonClient client{"errors"};
};

// The messages of the page with their codes: the rows "| CODE | `MESSAGE` | ...".
std::map<std::string, int> documented() {
    std::map<std::string, int> messages;
    std::ifstream page{VTD_SOURCE_DIR "/doc/wire.md"};
    const std::regex row{R"(\| (\d+) \| `([^`]+)` \|.*)"};
    std::smatch parts;
    for (std::string line; std::getline(page, line);) {
        if (std::regex_match(line, parts, row)) messages.emplace(parts[2], std::stoi(parts[1]));
    }
    return messages;
}

// Whether the text is the message with something for each word in capitals.
bool isOf(const std::string& message, const std::string& text) {
    const std::string pattern = std::regex_replace(message, std::regex{R"(\b[A-Z]+\b)"}, "?*");
    return ::fnmatch(pattern.c_str(), text.c_str(), FNM_NOESCAPE) == 0;
}

TEST_F(ErrorMessages, EachOfThePageIsWhatTheDaemonAnswers) {
    if (!kOwnMounts) GTEST_SKIP() << "no mounts here";
    const std::string plugIns = root / "system/PlugIns", application = root / "user/Applications/A.app";
    const std::string none = root / "none", denied = "access to plugin ", format = "invalid request format";
    const Value one = uuid("one"), unknown = Array{Uuid::random()}, noText = Dictionary{{"no XML", "\x01"}};
    const Value tooLong = Dictionary{{"long", std::string(65'536, 'x')}};
    const Array::Storage patterns(99'000, "<>");
    const Value escaped = Dictionary{{"stored as more", std::string(20'000, '&')}};
    const Value nearlyAll = Dictionary{{"x", std::string(65'000, 'x')}};
    const auto annotate = [&](const Value& annotations) {
        return Dictionary{{"request", "annotate"}, {"uuids", one}, {"annotations", annotations}};
    };
    const auto election = [&](const Value& value) { return annotate(Dictionary{{"election", value}}); };
    const auto extension = [&](const Value& value) { return annotate(Dictionary{{"extension", value}}); };
    const auto lock = [](const std::string& path, unsigned flags) {
        return Dictionary{{"request", "lock"}, {"paths", Array{path}}, {"flags", flags}};
    };
    const auto failAllocation = [] {
        return noMemoryForUuids = true, Fault{&noMemoryForUuids, [](auto* failing) { *failing = false; }};
    };
    const auto hold = [&] {
        const Value token = *ask(lock(plugIns + "/one", 2)).find("uuids");
        return Fault{this, [&, token](auto*) { ask({{"request", "lock"}, {"uuids", Array{token}}}); }};
    };
    const auto fill = [&] {
        const auto set = [this](const std::optional<Dictionary>& annotation) {
            server->_sync()->sync([&] {
                for (int i = 0; i < 300; ++i) {
                    static_cast<void>(server->annotations()->setAnnotation(annotation, std::to_string(i)));
                }
            });
        };
        set(*nearlyAll.dictionary());
        return Fault{this, [set](auto*) { set({}); }};
    };
    struct Row {
        std::string error;
        Dictionary request;
        std::function<Fault()> fault = {};
    };
    const Row rows[] = {
        {"unable to register plug-in at " + application, {{"request", "add"}, {"paths", Array{application}}}},
        {format + " (missing type)", {}},
        {"unrecognized request", {{"request", "Match"}}},
        {format, {{"request", "remove"}, {"paths", Array{1}}}},
        {format + " (uuid)", {{"request", "ready"}, {"uuids", Uuid::random()}}},
        {"invalid request (bad uuid array)", {{"request", "access"}, {"uuids", Array{"text"}}}},
        {"invalid request (uuid allocation failure)", {{"request", "access"}, {"uuids", one}}, failAllocation},
        {"no such plugin (uuid not found)", {{"request", "ready"}, {"uuids", unknown}}},
        {format + " (bad rules dictionary)", {{"request", "match"}, {"rules", "all"}}},
        {format + " (bad annotations dictionary)", annotate(1)},
        {format + " (annotation election)", election("1")},
        {format + " (annotation election)", election(std::nan(""))},
        {format + " (annotation extension)", extension(1)},
        {format + " (annotation extension)", extension(noText)},
        {format + " (annotation extension)", extension(tooLong)},
        {"annotations of a plug-in exceed 65536 bytes as stored", extension(escaped)},
        {"annotations exceed 16777216 bytes as stored", extension(nearlyAll), fill},
        {format + " (unsupported hold flags)", lock(plugIns + "/one", 3)},
        {"cannot obtain executable path for plug-in " + named("bare"), {{"request", "ready"}, {"uuids", uuid("bare")}}},
        {"unable to enable plug-in " + named("one") + " for pid " + std::to_string(::getpid()),
         {{"request", "ready"}, {"uuids", one}},
         [this] { return readOnly("run/services"); }},
        {"cannot create extension to " + plugIns + "/one: 24", {{"request", "access"}, {"uuids", one}}, noDescriptors},
        {"the request is too much work", {{"request", "match"}, {"rules", Dictionary{{"a", Array{patterns}}}}}},
        {"unsupported protocol version 4 (current 3)", {{"version", 4u}}},
        {"absolute path required: x/y", lock("x/y", 2)},
        {"invalid plugin path: " + none, {{"request", "add"}, {"paths", Array{none}}}},
        {"no plugin at " + none, {{"request", "remove"}, {"paths", Array{none}}}},
        {"invalid path: " + none, lock(none, 2)},
        {"no plug-in at path:" + plugIns, lock(plugIns, 2)},
        {"unauthorized discovery flag (VTDiscoverAll)", {{"request", "match"}, {"flags", 0x200u}}},
        {denied + "demanding denied: the host does not have the \"rare\" entitlement",
         {{"request", "ready"}, {"uuids", uuid("demanding")}}},
        {denied + "one denied: the plug-in is on hold", {{"request", "ready"}, {"uuids", one}}, hold},
        {"plug-ins are busy", lock(application, 1)},
    };
    const std::map<std::string, int> page = documented();
    std::set<std::string> shown;
    for (const Row& row : rows) {
        const auto message =
            std::find_if(page.begin(), page.end(), [&](auto& of) { return isOf(of.first, row.error); });
        ASSERT_NE(message, page.end()) << "not on the page: " << row.error;
        shown.insert(message->first);
        if (row.error.ends_with("allocation failure)") && ALLOCATES_BY_ITSELF == 0) continue;
        const Fault fault = row.fault ? row.fault() : nullptr;
        const Dictionary reply = ask(row.request);
        EXPECT_EQ(reply.changing("conflicts", {}), (Dictionary{{"errorcode", message->second}, {"error", row.error}}));
    }
    for (const auto& [message, code] : page) {
        EXPECT_EQ(shown.count(message), 1U) << "on the page, but not shown: " << message;
    }
    EXPECT_EQ(ask({{"request", "ready"}, {"uuids", one}}), Dictionary{}) << "nothing is broken afterwards";
}

}  // namespace
