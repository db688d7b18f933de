#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/plist/Plist.h"
#include "tests/support/LogLines.h"
#include "tests/vtd/FakeRegistry.h"
#include "tests/vtd/World.h"
#include "vtd/VTDPlugIn.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using value::Array;
using value::Dictionary;
using value::Value;

// Records made ready for this very process, with the real service manager and the real consent.
class Launch : public testing::Test {
protected:
    Launch() {
        root.write("a.app/Info.plist", *plist::writeXml(Dictionary{{"QFBundleIdentifier", "app"}}));
        root.write("nameless.app/Info.plist", *plist::writeXml(Dictionary{}));
        root.write("state/consent.plist",
                   *plist::writeXml(Dictionary{
                       {"app", Array{Dictionary{{"service", "WexaServiceKeyboardNetwork"}, {"granted", true}},
                                     Dictionary{{"service", "WexaServiceOther"}, {"granted", true}},
                                     Dictionary{{"service", "WexaServiceRefused"}, {"granted", false}}}}}));
    }

    std::shared_ptr<VTDPlugIn> install(const std::string& name, const Dictionary& plugIn = {},
                                       const Value& service = Dictionary{}, const std::string& application = {}) {
        const Dictionary info{{"QFBundleIdentifier", name},
                              {"QFBundleVersion", "1"},
                              {"QFBundleExecutable", "run"},
                              {"MoxService", service},
                              {"KXExtension", plugIn.changing("KXExtensionProtocol", "P")}};
        root.write(name + "/Info.plist", *plist::writeXml(info));
        ::chmod(root.write(name + "/run", "#!/bin/sh\n").c_str(), 0755);
        const auto proxy = std::make_shared<fake::PlugIn>(name, root / name);
        if (!application.empty()) proxy->container = dravo::DVBundleProxy{nullptr, root / application};
        auto record = VTDPlugIn::initWithDVData(proxy);
        proxy->dataContainer = dataContainer;
        log.take();
        return record;
    }

    std::string fileOf(const std::string& name) const {
        return root / ("run/services/" + std::to_string(::getpid()) + "/" + name + "@1.plist");
    }

    // What is registered of the plug-in: the overlay.
    Dictionary overlay(const std::string& name) const {
        const auto registration = plist::readFile(fileOf(name));
        return registration ? *registration->dictionary()->dictionary("overlay") : Dictionary{};
    }

    const support::TemporaryDirectory& root = World::get().root();
    fake::Text dataContainer = "/data";
    support::LogLines log;
};

TEST_F(Launch, TheProfileIsTheDaemonsChoice) {
    const Dictionary keyboard{{"KXExtensionPointIdentifier", "halvern.keyboard-service"}};
    const auto asking = [&](const Value& wish) {
        return keyboard.changing("KXExtensionAttributes", Dictionary{{"RequestsOpenAccess", wish}});
    };
    const struct {
        const char* name;
        Dictionary plugIn;
        const char* application;
        const char* profile;
    } rows[] = {
        {"any", {{"KXExtensionPointIdentifier", "halvern.share-service"}}, "a.app", "plugin"},
        {"filter", {{"KXExtensionPointIdentifier", "halvern.filtrane.filter-data"}}, "", "network-filter"},
        {"filter.beneath", {{"KXExtensionPointIdentifier", "halvern.filtrane.filter-data.x"}}, "", "plugin"},
        {"keyboard", keyboard, "a.app", "keyboard"},
        {"keyboard.open", asking(true), "a.app", "plugin"},
        {"keyboard.number", asking(1), "a.app", "plugin"},
        {"keyboard.text", asking("true"), "a.app", "keyboard"},
        {"keyboard.no", asking(false), "a.app", "keyboard"},
        {"keyboard.alone", asking(true), "", "keyboard"},
        {"keyboard.unasked", asking(true), "nameless.app", "keyboard"},
        {"keyboard.lost", asking(true), "gone.app", "keyboard"},
    };
    const Dictionary wish{{"_SandboxProfile", "none"}, {"_OmitSandboxParameters", false}};
    for (const auto& row : rows) {
        const auto plugIn = install(row.name, row.plugIn, wish, row.application);
        ASSERT_FALSE(plugIn->enableForPid(::getpid())) << row.name;
        EXPECT_EQ(
            overlay(row.name),
            (Dictionary{{"QFBundlePackageType", "Mox!"},
                        {"MoxService", Dictionary{{"_SandboxProfile", row.profile},
                                                  {"_OmitSandboxParameters", true},
                                                  {"EnvironmentVariables", Dictionary{{"HOME", "/data"},
                                                                                      {"QFFIXED_USER_HOME", "/data"},
                                                                                      {"TMPDIR", "/data/tmp"}}}}}}))
            << row.name;
    }
    EXPECT_THAT(install("b", {}, Dictionary{}, "a.app")->allowedWexaServices(),
                ElementsAre("WexaServiceKeyboardNetwork", "WexaServiceOther"));
}

TEST_F(Launch, TheEnvironmentIsTheDaemonsWithThePlugInsOwnOverIt) {
    const auto environmentOf = [&](const char* name, const Value& service) {
        EXPECT_FALSE(install(name, {}, service)->enableForPid(::getpid()));
        return *overlay(name).dictionary("MoxService")->dictionary("EnvironmentVariables");
    };
    const Dictionary own{{"EnvironmentVariables", Dictionary{{"HOME", "/own"}, {"MODE", "x"}, {"NO_TEXT", 1}}},
                         {"RunLoopType", "main"}};
    ::setenv("VTTEST_SDK", "/sdk", 1);
    EXPECT_EQ(environmentOf("own", own), (Dictionary{{"HOME", "/own"},
                                                     {"MODE", "x"},
                                                     {"QFFIXED_USER_HOME", "/data"},
                                                     {"TMPDIR", "/data/tmp"},
                                                     {"VTTEST_SDK", "/sdk"}}));
    EXPECT_EQ(*overlay("own").dictionary("MoxService")->string("RunLoopType"), "main");
    ::unsetenv("VTTEST_SDK");
    dataContainer = {};
    EXPECT_EQ(environmentOf("no-list", Dictionary{{"EnvironmentVariables", "HOME=/own"}}), Dictionary{});
    EXPECT_EQ(environmentOf("no-service", "text"), Dictionary{});
}

TEST_F(Launch, SaysWhatItDoesAndWhatPreventsIt) {
    const auto plugIn = install("plug");
    const std::string names = "plug(" + plugIn->version() + ")";
    const std::string id = plugIn->uuid().string();
    const std::string pid = std::to_string(::getpid());
    const std::string place = root / "plug";
    const auto error = [&] {
        const auto why = plugIn->enableForPid(::getpid());
        return why ? why->domain + std::to_string(why->code) + " " + why->localizedDescription() : "";
    };
    const std::string assigning = "assigning plug-in " + names + " to plugin sandbox";
    const std::string enabling = "enabling pid=" + pid + " for plug-in " + names + " " + id + " " + place;
    EXPECT_EQ(error(), "");
    EXPECT_THAT(log.take(), ElementsAre(assigning, enabling));

    std::filesystem::remove_all(root / "run/services");
    root.write("run/services", "no directory");
    EXPECT_EQ(error(), "Velto4 unable to enable plug-in plug(" + id + ") for pid " + pid);
    const std::string refused =
        "mox error 20 allowing pid " + pid + " to use plug-in " + names + " " + id + " at " + place;
    EXPECT_THAT(log.take(), ElementsAre(assigning, enabling, refused));
    std::filesystem::remove(root / "run/services");

    const std::string executable = root / "plug/run";
    const std::string none = "Velto4 cannot obtain executable path for plug-in plug(" + id + ")";
    ::chmod(executable.c_str(), 0644);
    EXPECT_EQ(error(), none) << "may not be run";
    std::filesystem::remove(executable);
    EXPECT_EQ(error(), none) << "missing";
    ASSERT_EQ(::symlink("/bin/sh", executable.c_str()), 0);
    EXPECT_EQ(error(), none) << "a link that leaves the bundle";
    std::filesystem::remove(executable);
    std::filesystem::create_directory(executable);
    EXPECT_EQ(error(), none) << "a directory";
    log.take();

    dataContainer = {};
    EXPECT_FALSE(install("bare")->enableForPid(::getpid()));
    EXPECT_THAT(log.take().at(0), testing::MatchesRegex("no data container for plug-in bare\\(1\\) .{36} at .*/bare"));
    for (const char* application : {"gone.app", "nameless.app"}) {
        EXPECT_THAT(install("asking", {}, Dictionary{}, application)->allowedWexaServices(), IsEmpty());
        EXPECT_THAT(log.take(),
                    Contains(application == std::string{"gone.app"}
                                 ? "failed to create bundle for " + (root / "asking")
                                 : "WexaAccessCopyInformationForBundle failed for " + (root / application)));
    }
}

}  // namespace
