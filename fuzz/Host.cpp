#include "fuzz/Host.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "fuzz/Fuzz.h"
#include "platform/bundle/Bundle.h"
#include "platform/entitlements/Entitlements.h"
#include "platform/plist/Plist.h"

namespace fuzz {

namespace {

namespace fs = std::filesystem;
using value::Array;
using value::Dictionary;

void write(const fs::path& path, const Dictionary& content) {
    std::ofstream{path, std::ios::binary} << *plist::writeXml(content);
    fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
}

Array texts(const std::string& stem, std::size_t count) {
    Array::Storage list;
    for (std::size_t i = 0; i < count; ++i) list.emplace_back(stem + std::to_string(i));
    return Array{std::move(list)};
}

}  // namespace

void becomeHost() {
    ::umask(022);
    const fs::path executable = fs::read_symlink("/proc/self/exe"), bundle = executable.parent_path();
    fs::permissions(bundle, fs::perms::group_write | fs::perms::others_write, fs::perm_options::remove);
    Dictionary::Builder info;
    info.set(bundle::kExecutableKey, executable.filename().string());
    info.set(bundle::kIdentifierKey, "org.example.host");
    for (int list = 0; list < 17; ++list) {
        info.set("List" + std::to_string(list), texts("type", bundle::kListLimit));
    }
    const Dictionary said = std::move(info).build();
    require(plist::writeXml(said)->size() < bundle::kInfoLimit);
    write(bundle / bundle::kInfoFile, said);

    constexpr std::size_t kPatterns = 5'000;  // of which the last accepts whatever there is
    Array::Storage patterns;
    for (std::size_t i = 1; i < kPatterns; ++i) patterns.emplace_back("org.example.other" + std::to_string(i));
    patterns.emplace_back("<>none");
    write(bundle / entitlements::kFile, {{"halvern.developer.velto.allowedplugins",
                                          Dictionary{{"KXExtensionIdentifier", Array{std::move(patterns)}}}}});
}

}  // namespace fuzz
