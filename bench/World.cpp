#include "bench/World.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "platform/plist/Plist.h"
#include "platform/value/Value.h"

namespace bench {

namespace {

using value::Array;
using value::Dictionary;

std::string makeRoot() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vtd-bench.XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary directory");
    return pattern;
}

// The entries that a real extension's Info.plist has, about 2 KB of XML with the extension's own.
Dictionary infoOf(const std::string& identifier, const std::string& name, const std::string& point,
                  World::Demands demands) {
    Dictionary extension{
        {"KXExtensionPointIdentifier", point},
        {"KXExtensionPrincipalScene", "Main"},
        {"KXExtensionProtocol", "KXObject"},
        {"KXExtensionAttributes", Dictionary{{"KXExtensionPointName", point},
                                             {"KXExtensionVersion", "3.2.1"},
                                             {"Category", "productivity"},
                                             {"Languages", Array{"de", "en", "es", "fr", "it", "ja", "pt"}},
                                             {"Order", 10},
                                             {"SupportsDrag", true},
                                             {"ActivationRule", Dictionary{{"public.image", 10}, {"public.text", 1}}},
                                             {"Keywords", Array{"share", "send", "post", "picture"}}}}};
    if (demands == World::Demands::everything) {
        extension = extension.changing("KXExtensionHostEntitlement", value::Value{kHostEntitlement});
    }
    return {
        {"QFBundleIdentifier", identifier},
        {"QFBundleName", name},
        {"QFBundleDisplayName", name},
        {"QFBundleExecutable", "Extension"},
        {"QFBundlePackageType", "MOX!"},
        {"QFBundleShortVersionString", "3.2.1"},
        {"QFBundleVersion", "3021"},
        {"QFBundleDevelopmentRegion", "en"},
        {"QFBundleInfoDictionaryVersion", "6.0"},
        {"QFBundleSupportedPlatforms", Array{"Handset", "Tablet"}},
        {"DTCompiler", "builtin"},
        {"DTPlatformVersion", "12.4"},
        {"MinimumSystemVersion", "11.0"},
        {"DeviceFamily", Array{1, 2}},
        {"RequiredCapabilities", Array{"arm64", "camera"}},
        {"KXExtension", extension},
    };
}

}  // namespace

void writeList(const std::filesystem::path& path, const value::Value& value) {
    std::filesystem::create_directories(path.parent_path());
    const auto text = plist::writeXml(value);
    if (!text) throw std::runtime_error(text.error().localizedDescription());
    std::ofstream{path} << *text;
}

World::World(std::size_t plugIns, Demands demands) : root_{makeRoot()}, plugIns_{plugIns} {
    const std::filesystem::path root = root_;
    for (const char* directory : {"run", "state", "config", "user", "system"}) {
        std::filesystem::create_directories(root / directory);
        std::filesystem::permissions(root / directory, std::filesystem::perms::owner_all);
    }
    for (const std::string point : {"bench.point.one", "bench.point.other"}) {
        writeList(root / "system/SDKs" / (point + ".plist"),
                  Dictionary{{"KXExtension", Dictionary{{"KXExtensionProtocol", "KXObject"}, {"SDKOnly", "merged"}}}});
    }
    for (std::size_t i = 0; i < plugIns; ++i) {
        const std::string application = "bench.app" + std::to_string(i / kPlugInsPerApplication);
        const auto container = root / "user/Applications" / application;
        const auto bundle =
            (demands == Demands::nothing ? container.parent_path() : container) / (application + ".app");
        const std::string identifier = application + ".extension" + std::to_string(i % kPlugInsPerApplication);
        const bool first = i % kPlugInsPerApplication == 0;
        if (first) {
            writeList(bundle / "Info.plist",
                      Dictionary{{"QFBundleIdentifier", application}, {"QFBundleName", application}});
        }
        writeList(bundle / "PlugIns" / (std::to_string(i % kPlugInsPerApplication) + ".appex") / "Info.plist",
                  infoOf(identifier, "Extension " + std::to_string(i), first ? "bench.point.one" : "bench.point.other",
                         demands));
    }
}

World::~World() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
}

}  // namespace bench
