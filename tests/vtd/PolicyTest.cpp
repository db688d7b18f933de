#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Velto/VTProtocol.h"
#include "platform/paths/Paths.h"
#include "platform/plist/Plist.h"
#include "platform/prefs/Preferences.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/vtd/DaemonProcess.h"

namespace {

namespace fs = std::filesystem;
using testing::Contains;
using testing::HasSubstr;
using value::Array;
using value::Dictionary;
using value::Value;

using Names = std::set<std::string>;

// Who may see what, by the daemon as a process of its own and hosts that are processes with bundles of their own.
class Policy : public testing::Test {
protected:
    Policy() {
        paths::setDirectories({root / "run", root / "state", root / "config", root / "user", root / "system", true});
        fs::create_directory(root / "config");
        fs::copy_file(VTCTL_PROGRAM, root / "host");
        installPlugIn("system/PlugIns/open.plugin", "open");
    }

    void write(const std::string& path, const Value& content) const { root.write(path, *plist::writeXml(content)); }

    void installPlugIn(const std::string& path, const std::string& identifier, const Dictionary& extra = {}) const {
        Dictionary description = extra.changing("KXExtensionProtocol", Value{"#Data"});
        write(path + "/Info.plist", Dictionary{{"QFBundleIdentifier", identifier}, {"KXExtension", description}});
    }

    // A plug-in in an application in a container of its own, with the metadata there, if any.
    void installRated(const std::string& name, const std::optional<std::string>& metadata) const {
        const std::string container = "user/Applications/" + name;
        write(container + "/The.app/Info.plist", Dictionary{{"QFBundleIdentifier", name + ".app"}});
        installPlugIn(container + "/The.app/PlugIns/p.plugin", name);
        if (metadata) root.write(container + "/JorunMetadata.plist", *metadata);
    }

    // A host whose executable is a client program; answers its path. Without entitlements it has no such file.
    std::string installHost(const std::string& bundle, const std::optional<std::string>& entitlements) const {
        write(bundle + "/Info.plist",
              Dictionary{{"QFBundleIdentifier", "org.example.host"}, {"QFBundleExecutable", "host"}});
        if (entitlements) root.write(bundle + "/Entitlements.plist", *entitlements);
        fs::create_hard_link(root / "host", root / (bundle + "/host"));
        for (const auto& entry : {root / bundle, root / (bundle + "/Entitlements.plist")}) {
            if (fs::exists(entry)) fs::permissions(entry, fs::perms{022}, fs::perm_options::remove);
        }
        return root / (bundle + "/host");
    }

    // With a cache of one record, so that records are made again and again.
    void start() {
        daemon = std::make_unique<DaemonProcess>(root.path(), std::vector<std::string>{"-v", "-c", "1"});
        ASSERT_TRUE(daemon->awaitReady());
    }

    // What a process of the program sees: the identifiers.
    Names seenBy(const std::string& program, std::uint64_t flags = 0) const {
        const std::string command = "HALVERN_ROOT='" + root.path() + "' '" + program +
                                    "' call match '{\"flags\": " + std::to_string(flags) + "}' 2>&1";
        const std::unique_ptr<FILE, int (*)(FILE*)> output{::popen(command.c_str(), "r"), ::pclose};
        std::string text;
        for (int c; output && (c = std::getc(output.get())) != EOF;) text += static_cast<char>(c);
        if (!text.starts_with("{\"matches\"")) return {text};
        Names names;
        constexpr std::string_view kKey = "\"identifier\":";
        for (std::size_t at = 0; (at = text.find(kKey, at)) != std::string::npos;) {
            const std::size_t start = text.find('"', at + kKey.size()) + 1;
            at = text.find('"', start);
            names.insert(text.substr(start, at - start));
        }
        return names;
    }

    // How many of the lines have the text in them.
    static std::ptrdiff_t count(const std::vector<std::string>& lines, std::string_view text) {
        return std::count_if(lines.begin(), lines.end(),
                             [text](const std::string& line) { return line.find(text) != std::string::npos; });
    }

    const support::TemporaryDirectory root;
    std::unique_ptr<DaemonProcess> daemon;
};

std::string dictionary(const std::string& entries) {
    return "<plist version=\"1.0\"><dict>" + entries + "</dict></plist>";
}

TEST_F(Policy, HostsSeeWhatTheirEntitlementsAndThePlugInsAllow) {
    installPlugIn("system/PlugIns/demanding.plugin", "demanding", {{"KXExtensionHostEntitlement", "org.example.may"}});
    installPlugIn("system/PlugIns/odd.plugin", "odd", {{"KXExtensionHostEntitlement", 5}});
    const std::string restrictionTo = "<key>halvern.developer.velto.allowedplugins</key>";
    const std::string only = restrictionTo + "<dict><key>KXExtensionIdentifier</key><string>open</string></dict>";
    const std::string may = "<key>org.example.may</key>";
    const std::string lacks = ": the host does not have the \"org.example.may\" entitlement";
    const std::string excluded = "demanding: the host's plug-in entitlement does not allow this plug-in";
    const std::string invalid = ": invalid host restriction entitlement";
    const struct {
        const char* name;
        std::optional<std::string> entitlements;
        Names seen;
        std::vector<std::string> refusals;  // among those that are logged
    } rows[] = {
        {"no entitlements", {}, {"open"}, {"demanding" + lacks, "odd: the host does not have the \"5\" entitlement"}},
        {"holds it", dictionary(may + "<true/>"), {"open", "demanding"}, {}},
        {"holds it as a text", dictionary(may + "<string>no</string>"), {"open", "demanding"}, {}},
        {"holds it as false", dictionary(may + "<false/>"), {"open"}, {"demanding" + lacks}},
        {"holds it as 0", dictionary(may + "<integer>0</integer>"), {"open"}, {"demanding" + lacks}},
        {"holds it under the odd name", dictionary("<key>5</key><true/>"), {"open"}, {"demanding" + lacks}},
        {"restricted", dictionary(only + may + "<true/>"), {"open"}, {excluded}},
        {"restricted, and lacks it", dictionary(only), {"open"}, {excluded}},
        {"restricted to everything", dictionary(restrictionTo + "<dict/>"), {"open"}, {"demanding" + lacks}},
        {"invalid restriction", dictionary(restrictionTo + "<string>open</string>"), {}, {"open" + invalid}},
        {"invalid, and lacks it", dictionary(restrictionTo + "<array/>"), {}, {"demanding" + invalid}},
        {"malformed", "no list", {"open"}, {"demanding" + lacks}},
    };
    start();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        daemon->takeWrites();
        EXPECT_EQ(seenBy(installHost("hosts/" + std::string{row.name} + ".app", row.entitlements)), row.seen);
        const auto lines = daemon->takeWrites();
        EXPECT_EQ(count(lines, " cannot use plugin "), 3 - std::ssize(row.seen));
        for (const std::string& refusal : row.refusals) {
            EXPECT_THAT(lines, Contains(HasSubstr(" cannot use plugin " + refusal + "\n")));
        }
    }
}

TEST_F(Policy, ApplicationsAboveTheMaximumRatingAreLeftOut) {
    const auto rated = [](const std::string& rank) {
        return dictionary("<key>rating</key><dict><key>rank</key>" + rank + "</dict>");
    };
    installRated("rated17", rated("<integer>17</integer>"));
    installRated("rated9", rated("<real>9.9</real>"));
    const std::map<std::string, std::string> unknown{
        {"text", rated("<string>99</string>")},
        {"list", dictionary("<key>rating</key><array/>")},
        {"malformed", "no list"},
        {"other", dictionary("<key>rank</key><integer>99</integer>")},
    };
    Names unrated{"open", "none"};
    installRated("none", {});
    for (const auto& [name, metadata] : unknown) {
        installRated(name, metadata);
        unrated.insert(name);
    }
    const std::string key = "<key>maximum-apps-rating</key>";
    const struct {
        const char* name;
        std::optional<std::string> restrictions;
        std::set<std::string> rated;
        bool complains;
    } rows[] = {
        {"no file", {}, {"rated17", "rated9"}, false},
        {"at the maximum", dictionary(key + "<integer>17</integer>"), {"rated17", "rated9"}, false},
        {"one above the maximum", dictionary(key + "<integer>16</integer>"), {"rated9"}, false},
        {"the whole part counts", dictionary(key + "<integer>9</integer>"), {"rated9"}, false},
        {"no key", dictionary("<key>other</key><integer>0</integer>"), {"rated17", "rated9"}, false},
        {"nothing above -1", dictionary(key + "<integer>-1</integer>"), {}, false},
        {"a text", dictionary(key + "<string>17</string>"), {}, true},
        {"no dictionary", "<plist version=\"1.0\"><integer>17</integer></plist>", {}, true},
        {"malformed", "no list", {}, true},
    };
    const std::string host = installHost("hosts/host.app", {});
    std::ptrdiff_t complaints = 0;
    start();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        fs::remove(root / "config/restrictions.plist");
        if (row.restrictions) root.write("config/restrictions.plist", *row.restrictions);
        Names expected = unrated;
        expected.insert(row.rated.begin(), row.rated.end());
        EXPECT_EQ(seenBy(host), expected);
        EXPECT_EQ(seenBy(host), expected);
        const auto writes = daemon->takeWrites();
        EXPECT_EQ(count(writes, "restrictions.plist"), row.complains ? 1 : 0) << "once a change of the file";
        complaints += count(writes, "malformed/JorunMetadata.plist");
        if (!row.rated.count("rated17")) {
            EXPECT_THAT(
                writes,
                Contains(HasSubstr("cannot use plugin rated17: the containing Application is age restricted\n")));
        }
    }
    EXPECT_EQ(complaints, 1) << "for all the records that were made";
    fs::remove(root / "config/restrictions.plist");
    fs::create_symlink("gone", root / "config/restrictions.plist");
    EXPECT_EQ(seenBy(host), unrated) << "a link that leads nowhere is not the absence of a restriction";
}

TEST_F(Policy, ExclusionsActFromTheNextRequestOnWhoeverAsks) {
    installPlugIn("system/PlugIns/demanding.plugin", "demanding", {{"KXExtensionHostEntitlement", "org.example.may"}});
    const std::string host = installHost("hosts/host.app", {});
    const std::string manager =
        installHost("system/Applications/manager.app", dictionary("<key>halvern.private.velto.manager</key><true/>"));
    const auto exclusion = [](const std::string& pattern) {
        return Value{Dictionary{{"KXExtensionIdentifier", pattern}}};
    };
    const Dictionary both{{"KXExtensionIdentifier", "open"}, {"KXExtensionPointName", "some.point"}};
    const struct {
        const char* name;
        std::optional<Value> stored;
        Names host, manager;
        std::ptrdiff_t said;  // lines of ours about the file
    } rows[] = {
        {"none", {}, {"open"}, {"open", "demanding"}, 0},
        {"the open one", Array{exclusion("x"), exclusion("open")}, {}, {"demanding"}, 0},
        {"both rules must match", Array{both}, {"open"}, {"open", "demanding"}, 0},
        {"by an operator", Array{exclusion(">=o"), exclusion("demanding")}, {}, {}, 0},
        {"an empty list", Array{}, {"open"}, {"open", "demanding"}, 0},
        {"what matches all", Array{Dictionary{}}, {}, {}, 0},
        {"not only dictionaries", Array{exclusion("open"), "open"}, {"open"}, {"open", "demanding"}, 1},
        {"no list", exclusion("open"), {"open"}, {"open", "demanding"}, 1},
    };
    start();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto store = [&row](const auto&) { return row.stored; };
        ASSERT_EQ(prefs::update("halvern.velto.userprefs", "exclusions", store), std::nullopt);
        daemon->takeWrites();
        EXPECT_EQ(seenBy(host), row.host);
        EXPECT_EQ(seenBy(manager, VTDiscoverAll), row.manager);
        const auto writes = daemon->takeWrites();
        EXPECT_EQ(count(writes, "userprefs"), row.said);
        EXPECT_EQ(count(writes, " plugin open excluded\n"),
                  2 - std::ssize(row.host) - (row.manager.count("open") != 0));
    }
    fs::remove(prefs::pathOf("halvern.velto.userprefs"));
    EXPECT_EQ(seenBy(host), Names{"open"});
}

}  // namespace
