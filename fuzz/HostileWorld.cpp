#include "fuzz/HostileWorld.h"

#include <filesystem>
#include <stdexcept>
#include <thread>

#include "platform/bundle/Bundle.h"
#include "platform/dravo/scan/Bounds.h"
#include "platform/logging/Log.h"
#include "tests/vtd/World.h"
#include "vtd/VTDAnnotationStore.h"
#include "vtd/VTDPlugIn.h"

namespace fuzz {

namespace {

namespace fs = std::filesystem;
using value::Array;
using value::Dictionary;
using value::Value;

constexpr char kService[] = "fuzz";
constexpr std::size_t kMostInList = bundle::kListLimit;

// In memory where that can be had: what the disk takes for a save is another question than what the daemon does.
void keepFilesInMemory() {
    if (fs::is_directory("/dev/shm")) ::setenv("TMPDIR", "/dev/shm", 0);
}

Array texts(const std::string& stem, std::size_t count) {
    Array::Storage list;
    for (std::size_t i = 0; i < count; ++i) list.emplace_back(stem + std::to_string(i));
    return Array{std::move(list)};
}

Dictionary attributes(const std::string& point, std::size_t count) {
    return {{"KXExtensionPointName", point},
            {"Version", "1.10b"},
            {"Long", std::string(1'000, '1')},
            {"Number", 3},
            {"List", texts("org.example.type", count)},
            {"Rule", Dictionary{{"org.example.image", 10}, {"org.example.text", 1}}}};
}

}  // namespace

namespace {
const HostileWorld* theWorld = nullptr;  // never destroyed: the daemon's threads go on
}

void HostileWorld::make(Size size) {
    theWorld = new HostileWorld{size};
}

const HostileWorld& HostileWorld::get() {
    return *theWorld;
}

std::string HostileWorld::socketPath() const {
    return World::get().root() / (std::string{"run/"} + kService);
}

void HostileWorld::install(const std::string& bundle, const Dictionary& extension,
                           const Dictionary& entitlements) const {
    const auto& root = World::get().root();
    const std::string name = fs::path{bundle}.stem().string();
    Dictionary info{{"QFBundleIdentifier", name}, {"QFBundleVersion", "1"}, {"QFBundleExecutable", "run"}};
    if (!extension.empty()) {
        info = info.changing("KXExtension", extension.contains("KXExtensionProtocol")
                                                ? extension
                                                : extension.changing("KXExtensionProtocol", "P"));
    }
    root.writeList(bundle + "/Info.plist", info);
    if (!entitlements.empty()) root.writeList(bundle + "/Entitlements.plist", entitlements);
    fs::permissions(root.write(bundle + "/run", "#!/bin/sh\n"), fs::perms::owner_all);
}

// A path through 39 links, each to a target of nearly 4 KB that goes down and up again; and one deep directory.
std::string HostileWorld::makeLinks() const {
    const auto& root = World::get().root();
    fs::create_directories(root / "user/links/a");
    for (int link = 0; link < 39; ++link) {
        std::string target;
        while (target.size() < 4'000) target += "a/../";
        target += link == 38 ? "a" : "link" + std::to_string(link + 1);
        fs::create_symlink(target, root / ("user/links/link" + std::to_string(link)));
    }
    return root / "user/links/link0";
}

// What the registry takes just so: one value more, one byte more, one element more, and it would be refused.
void HostileWorld::installWithinBounds() const {
    const std::string system = "system/PlugIns/within-";
    const Dictionary plain = attributes("one", 3);
    Dictionary::Builder lists, values, several;
    for (int list = 0; list < 17; ++list) lists.set("List" + std::to_string(list), texts("type", kMostInList));
    for (const auto& entry : plain) lists.set(entry.key, entry.value), values.set(entry.key, entry.value);
    install(system + "bytes", {{"KXExtensionAttributes", std::move(lists).build()}});
    Array::Storage flags(kMostInList, Value{true});
    for (int list = 0; list < 37; ++list) values.set("Flags" + std::to_string(list), Array{flags});
    install(system + "values", {{"KXExtensionAttributes", std::move(values).build()}});
    install(system + "names",
            {{"KXExtensionAttributes", plain.changing("KXExtensionPointName", texts("p", kMostInList))},
             {"Shared", texts("resource", kMostInList)}});
    Dictionary::Builder rule;
    for (std::size_t i = 0; i < kMostInList; ++i) rule.set("org.example.type" + std::to_string(i), 10);
    install(system + "rule", {{"KXExtensionAttributes", plain.changing("Rule", std::move(rule).build())}});
    std::string longest;
    while (longest.size() < dravo::kComparedTextLimit) longest += "1.";
    install(system + "text", {{"KXExtensionAttributes", plain.changing("Long", longest)}});
    install(system + "entitled", {{"KXExtensionAttributes", plain}},
            {{"halvern.developer.replace-plugin", texts("org.example.replaced", kMostInList)},
             {"halvern.developer.auto-elect-plugin", true}});
    for (int i = 0; i < 180; ++i) {
        several.set("within" + std::to_string(i),
                    Dictionary{{"KXExtensionProtocol", "P"},
                               {"KXExtensionAttributes", Dictionary{{"KXExtensionPointName", "one"}}}});
    }
    install(system + "several", {{"Multiple", std::move(several).build()}});
}

void HostileWorld::installMany() {
    const int ofEach = isCrowded ? 4 : 1, longList = isCrowded ? 500 : 100;
    const std::string system = "system/PlugIns/", application = "user/Applications/A.app";
    for (int i = 0; i < (isCrowded ? 30 : 4); ++i) {
        install(system + "plain" + std::to_string(i),
                {{"KXExtensionAttributes", attributes(i % 3 == 0 ? "one" : "other", 20)}});
    }
    for (int i = 0; i < (isCrowded ? 10 : 2); ++i) {
        install(system + "elected" + std::to_string(i), {{"KXExtensionAttributes", attributes("one", 3)}},
                {{"halvern.developer.auto-elect-plugin", true}});
    }
    for (int i = 0; i < ofEach; ++i) {
        const std::string number = std::to_string(i);
        install(system + "lists" + number, {{"KXExtensionAttributes", attributes("one", longList)}});
        install(system + "points" + number,
                {{"KXExtensionAttributes", attributes("one", 3).changing("KXExtensionPointName", texts("p", 64))}});
        install(system + "refused" + number, {{"KXExtensionAttributes", std::string(200'000, '<')}});
        install(system + "keyed" + number, {{"KXExtensionAttributes", attributes("one", 3)}},
                {{"halvern.developer.replace-plugin", number + std::string(1'000, 'k')},
                 {"halvern.developer.auto-elect-plugin", true}});
        addable.push_back(World::get().root() / ("user/added/added" + number));
        install("user/added/added" + number, {{"KXExtensionAttributes", attributes("one", 200)}});
    }
    install(system + "keyed", {{"KXExtensionAttributes", attributes("one", 3)}},
            {{"halvern.developer.replace-plugin", std::string(1'000'000, 'k')}});
    install(system + "sharing", {{"KXExtensionAttributes", attributes("one", 3)}, {"Shared", texts("resource", 20)}});
    for (const std::string stem : {"few", "some", "many"}) {
        Dictionary::Builder several;
        for (int i = 0; i < (isCrowded ? 60 : 3); ++i) {
            several.set(stem + std::to_string(i),
                        Dictionary{{"KXExtensionProtocol", "P"},
                                   {"KXExtensionAttributes", Dictionary{{"KXExtensionPointName", "one"},
                                                                        {"Version", "1.10b"},
                                                                        {"List", texts("type", 3)}}}});
        }
        install(system + stem, {{"Multiple", std::move(several).build()}});
    }
    install(application, {});
    install(application + "/PlugIns/inside", {{"KXExtensionAttributes", attributes("one", 3)}});
    World::get().root().write("system/PlugIns/torn/Info.plist", "<plist><dict>");
    if (isCrowded) installWithinBounds();
}

HostileWorld::HostileWorld(Size size) : isCrowded{size == Size::crowded} {
    keepFilesInMemory();
    logging::setSink([](logging::Level, std::string_view) {});
    installMany();
    server_ = World::get().serve(kService);
    server_->setCacheLimit(1'000);
    for (VTDatabase::Search search; !search.isOver;) {
        const auto found = server_->findPlugIns({}, search).value_or(VTDatabase::PlugIns{});
        for (const auto& plugIn : found) {
            plugIns.push_back(plugIn->uuid());
            if (paths.size() < 20) paths.push_back(plugIn->path());
        }
    }
    const std::size_t expected = isCrowded ? 420 : 20;  // fewer: they are refused, and nothing is tried
    if (plugIns.size() < expected) throw std::runtime_error{std::to_string(plugIns.size()) + " plug-ins are too few"};
    server_->saveAnnotations();
    annotations_ = server_->annotations()->annotations();
    for (const char* path : {"user/Applications/A.app", "user/none", "system/PlugIns/refused0"}) {
        paths.push_back(World::get().root() / path);
    }
    paths.push_back(makeLinks());
    std::string deep = World::get().root() / "user";
    for (int i = 0; i < 400; ++i) deep += "/.";
    paths.push_back(deep);
}

void HostileWorld::settle() const {
    server_->mainQueue()->sync([] {});
    server_->workspace()->unregisterPlugin("none");  // comes behind what the registry is at
}

void HostileWorld::restore() const {
    const auto store = server_->annotations();
    server_->_sync()->sync([&] {
        const Dictionary now = store->annotations();
        for (const auto& [key, record] : now) {
            const Dictionary* const before = annotations_.dictionary(key);
            if (before == nullptr || !before->isSameObject(*record.dictionary())) {
                store->putBack(before != nullptr ? std::optional{*before} : std::nullopt, key);
            }
        }
    });
    // The client is gone, or going: its holds go with it.
    while (server_->syncQueue()->sync([this] { return server_->holds().size(); }) > 0) std::this_thread::yield();
}

}  // namespace fuzz
