#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <new>
#include <set>
#include <string>
#include <vector>

#include <fnmatch.h>
#include <gtest/gtest.h>

#include "Velto/VTDaemonClient.h"
#include "platform/plist/Plist.h"
#include "tests/support/Mounts.h"
#include "tests/vtd/World.h"
#include "vtd/VTDPlugIn.h"

namespace {

using value::Array;
using value::Dictionary;
using value::Uuid;
using value::Value;

const bool kOwnMounts = support::enterMountNamespace();

std::atomic<bool> noMemoryForUuids{false};
constexpr char kNoMemory[] = "invalid request (uuid allocation failure)";

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
        install("system/PlugIns/one", "one", {{"KXExtensionProtocol", "P"}});
        install("system/PlugIns/demanding", "demanding",
                {{"KXExtensionProtocol", "P"}, {"KXExtensionHostEntitlement", "org.example.rare"}});
        install("system/PlugIns/bare", "bare", {{"KXExtensionProtocol", "P"}});
        std::filesystem::remove(root / "system/PlugIns/bare/run");
        install("user/Applications/A.app", "app", {});
        install("user/Applications/A.app/PlugIns/inside", "inside", {{"KXExtensionProtocol", "P"}});
        server = World::get().serve("errors");
        server->setCacheLimit(150);
        const auto plugIns = server->findPlugIns({}).value_or(VTDatabase::PlugIns{});
        for (const auto& plugIn : plugIns) uuids[plugIn->identifier()] = plugIn->uuid();
    }

    void install(const std::string& bundle, const std::string& identifier, const Dictionary& extension) const {
        Dictionary info{{"QFBundleIdentifier", identifier}, {"QFBundleExecutable", "run"}};
        if (!extension.empty()) info = info.changing("KXExtension", extension);
        root.write(bundle + "/Info.plist", *plist::writeXml(info));
        ::chmod(root.write(bundle + "/run", "#!/bin/sh\n").c_str(), 0755);
    }

    // A second process with an assertion of the plug-in's.
    Fault busy(const std::string& identifier) const {
        const std::string program =
            "import fcntl, os, sys, time; os.makedirs(sys.argv[1], exist_ok=True); "
            "f = open(f'{sys.argv[1]}/{os.getpid()}', 'w'); f.write(sys.argv[2]); f.flush(); "
            "fcntl.lockf(f, fcntl.LOCK_EX); print(os.getpid(), flush=True); time.sleep(600)";
        const std::string command =
            "exec python3 -c \"" + program + "\" '" + (root / ("run/assertions/" + identifier)) + "' " + identifier;
        FILE* const other = ::popen(command.c_str(), "r");
        pid_t pid = 0;
        if (other == nullptr || std::fscanf(other, "%d", &pid) != 1) ADD_FAILURE() << "no second process";
        return {other, [pid](FILE* pipe) {
                    ::kill(pid, SIGKILL);
                    ::pclose(pipe);
                }};
    }

    Fault readOnly(const std::string& directory) const {
        std::filesystem::create_directories(root / directory);
        const std::shared_ptr<support::Mount> mount{new support::Mount{support::Mount::small(root / directory, "64k")}};
        mount->setReadOnly(true);
        return mount;
    }

    Value uuid(const char* plugIn) const { return Array{uuids.at(plugIn)}; }
    std::string named(const char* plugIn) const { return plugIn + ("(" + uuids.at(plugIn).string()) + ")"; }

    Dictionary ask(Dictionary request) {
        mox::Dictionary message;
        if (!request.contains("version")) request = request.changing("version", 3u);
        for (const auto& [key, content] : request) message.set(key, content);
        std::promise<Dictionary> answer;
        client.send(message, [&](const mox::Object& reply) { answer.set_value(*reply.view().toValue().dictionary()); });
        return answer.get_future().get();
    }

    const support::TemporaryDirectory& root = World::get().root();
    std::shared_ptr<VTDServer> server;
    std::map<std::string, Uuid> uuids;
    VTDaemonClient client{"errors"};
};

// The messages of the page with their codes: the rows "| CODE | `MESSAGE` | ...".
std::map<std::string, int> documented() {
    std::map<std::string, int> messages;
    std::ifstream page{VTD_SOURCE_DIR "/doc/wire.md"};
    for (std::string line; std::getline(page, line);) {
        const std::size_t start = line.find(" | `");
        const std::size_t end = line.find("` |", start);
        const bool isRow = line.starts_with("| ") && start != line.npos && end != line.npos &&
                           line.find_first_not_of("0123456789", 2) == start;
        if (isRow) messages.emplace(line.substr(start + 4, end - start - 4), std::stoi(line.substr(2)));
    }
    return messages;
}

// Whether the text is the message with something for each word in capitals.
bool isOf(const std::string& message, const std::string& text) {
    std::string pattern;
    for (std::size_t at = 0; at < message.size();) {
        const std::size_t end = std::min(message.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ", at), message.size());
        const bool isWord = end > at && (end == message.size() || std::islower(message[end]) == 0);
        pattern += isWord ? "?*" : message.substr(at, std::max<std::size_t>(end - at, 1));
        at = std::max(end, at + 1);
    }
    return ::fnmatch(pattern.c_str(), text.c_str(), FNM_NOESCAPE) == 0;
}

TEST_F(ErrorMessages, EachOfThePageIsWhatTheDaemonAnswers) {
    ASSERT_TRUE(kOwnMounts) << "needs a mount namespace";
    const std::string plugIns = root / "system/PlugIns", application = root / "user/Applications/A.app";
    const std::string none = root / "none";
    const Uuid unknown = Uuid::random();
    const Value one = uuid("one");
    const Dictionary annotate{{"request", "annotate"}, {"uuids", one}};
    const Dictionary lock{{"request", "lock"}, {"flags", 2u}};
    struct Row {
        const char* message;
        Dictionary request;
        std::string error;  // empty: the message as it stands
        std::function<Fault()> fault = {};
    };
    const Row rows[] = {
        {"unable to register plug-in at PATH",
         {{"request", "add"}, {"paths", Array{application}}},
         "unable to register plug-in at " + application},
        {"invalid request format (missing type)", {}, ""},
        {"unrecognized request", {{"request", "Match"}}, ""},
        {"invalid request format", {{"request", "remove"}, {"paths", Array{1}}}, ""},
        {"invalid request format (uuid)", {{"request", "ready"}, {"uuids", unknown}}, ""},
        {"invalid request (bad uuid array)", {{"request", "access"}, {"uuids", Array{"text"}}}, ""},
        {kNoMemory,
         {{"request", "access"}, {"uuids", one}},
         "",
         [] {
             return noMemoryForUuids = true, Fault{&noMemoryForUuids, [](auto* failing) { *failing = false; }};
         }},
        {"no such plugin (uuid not found)", {{"request", "ready"}, {"uuids", Array{unknown}}}, ""},
        {"invalid request format (bad rules dictionary)", {{"request", "match"}, {"rules", "all"}}, ""},
        {"invalid request format (bad annotations dictionary)", annotate.changing("annotations", 1), ""},
        {"invalid request format (annotation election)",
         annotate.changing("annotations", Dictionary{{"election", "1"}}), ""},
        {"invalid request format (annotation extension)",
         annotate.changing("annotations", Dictionary{{"extension", 1}}), ""},
        {"invalid request format (annotation election)",
         annotate.changing("annotations", Dictionary{{"election", std::nan("")}}), ""},
        {"invalid request format (annotation extension)",
         annotate.changing("annotations", Dictionary{{"extension", Dictionary{{"no XML", "\x01"}}}}), ""},
        {"invalid request format (annotation extension)",
         annotate.changing("annotations", Dictionary{{"extension", Dictionary{{"long", std::string(65'536, 'x')}}}}),
         ""},
        {"invalid request format (unsupported hold flags)",
         lock.changing("flags", 3u).changing("paths", Array{plugIns + "/one"}), ""},
        {"cannot obtain executable path for plug-in ID(UUID)",
         {{"request", "ready"}, {"uuids", uuid("bare")}},
         "cannot obtain executable path for plug-in " + named("bare")},
        {"unable to enable plug-in ID(UUID) for pid PID",
         {{"request", "ready"}, {"uuids", one}},
         "unable to enable plug-in " + named("one") + " for pid " + std::to_string(::getpid()),
         [this] { return readOnly("run/services"); }},
        {"cannot create extension to PATH: ERRNO",
         {{"request", "access"}, {"uuids", one}},
         "cannot create extension to " + plugIns + "/one: 2",
         [this] { return readOnly("system/PlugIns"); }},
        {"unsupported protocol version N (current 3)", {{"version", 4u}}, "unsupported protocol version 4 (current 3)"},
        {"absolute path required: PATH", lock.changing("paths", Array{"x/y"}), "absolute path required: x/y"},
        {"invalid plugin path: PATH", {{"request", "add"}, {"paths", Array{none}}}, "invalid plugin path: " + none},
        {"no plugin at PATH", {{"request", "remove"}, {"paths", Array{none}}}, "no plugin at " + none},
        {"invalid path: PATH", lock.changing("paths", Array{none}), "invalid path: " + none},
        {"no plug-in at path:PATH", lock.changing("paths", Array{plugIns}), "no plug-in at path:" + plugIns},
        {"unauthorized discovery flag (VTDiscoverAll)", {{"request", "match"}, {"flags", 0x200u}}, ""},
        {"access to plugin ID denied: REASON",
         {{"request", "ready"}, {"uuids", uuid("demanding")}},
         "access to plugin demanding denied: the host does not have the \"org.example.rare\" entitlement"},
        {"access to plugin ID denied: REASON",
         {{"request", "ready"}, {"uuids", one}},
         "access to plugin one denied: the plug-in is on hold",
         [&] {
             const Value token = *ask(lock.changing("paths", Array{plugIns + "/one"})).find("uuids");
             return Fault{this, [&, token](auto*) { ask(lock.changing("uuids", Array{token})); }};
         }},
        {"plug-ins are busy", lock.changing("flags", 1u).changing("paths", Array{application}), "",
         [this] { return busy("inside"); }},
    };
    std::map<std::string, int> pages = documented();
    std::set<std::string> shown;
    for (const Row& row : rows) {
        shown.insert(row.message);
        if (row.message == kNoMemory && ALLOCATES_BY_ITSELF == 0) continue;
        const Fault fault = row.fault ? row.fault() : nullptr;
        const Dictionary reply = ask(row.request);
        const std::string* const error = reply.string("error");
        ASSERT_NE(error, nullptr) << row.message;
        EXPECT_EQ(*error, row.error.empty() ? row.message : row.error);
        EXPECT_TRUE(isOf(row.message, *error)) << *error;
        EXPECT_EQ(*reply.find("errorcode"), Value{pages[row.message]}) << row.message;
    }
    for (const auto& [message, code] : pages) {
        EXPECT_NE(code, 0) << "not on the page: " << message;
        EXPECT_EQ(shown.count(message), 1U) << "on the page, but not shown: " << message;
    }
    EXPECT_EQ(ask({{"request", "ready"}, {"uuids", one}}), Dictionary{}) << "nothing is broken afterwards";
}

}  // namespace
