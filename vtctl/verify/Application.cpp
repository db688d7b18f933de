#include <filesystem>
#include <map>
#include <set>

#include "Velto/VTInfoKeys.h"
#include "platform/bundle/Bundle.h"
#include "platform/entitlements/Entitlements.h"
#include "platform/plist/Plist.h"
#include "platform/text/Format.h"
#include "vtctl/Nearest.h"
#include "vtctl/verify/Verify.h"

namespace verify {

namespace {

namespace fs = std::filesystem;

constexpr char kPlugIns[] = "PlugIns";

std::set<std::string> foldersIn(const fs::path& directory) {
    std::set<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry{directory, error}, end; !error && entry != end; entry.increment(error)) {
        if (entry->is_directory(error)) names.insert(entry->path().filename().string());
    }
    return names;
}

std::string identifierOf(const fs::path& plugIn) {
    const auto list = plist::readFile((plugIn / bundle::kInfoFile).string());
    const value::Dictionary* const info = list ? list->dictionary() : nullptr;
    const std::string* const name = info != nullptr ? info->string(bundle::kIdentifierKey) : nullptr;
    return name != nullptr && info->contains(VTInfoKey::extension) ? *name : std::string{};
}

}  // namespace

void judgeApplication(const std::string& path, Problems& problems) {
    Findings info{path + '/' + bundle::kInfoFile, problems};
    if (const auto dictionary = readInfo(info, path)) {
        info.judgeKeys(*dictionary, Level::bundle, {});
        if (!dictionary->contains(bundle::kIdentifierKey)) {
            info.add(Rule::noIdentifier, {bundle::kIdentifierKey}, {"is missing: the application has no name"});
        }
        // By its executable the daemon knows a host, and so its entitlements.
        if (dictionary->contains(bundle::kExecutableKey)) judgeExecutable(info, path, *dictionary);
        Findings entitlements{path + '/' + entitlements::kFile, problems};
        const auto held = readEntitlements(entitlements, path, Level::hostEntitlements);
        if (held && !dictionary->contains(bundle::kExecutableKey)) {
            info.add(Rule::noExecutableKey, {bundle::kExecutableKey},
                     {"is missing: the application is known by no program, and its entitlements are nobody's",
                      "add QFBundleExecutable"});
        }
    }

    const std::set<std::string> folders = foldersIn(path);
    for (const std::string& folder : folders) {
        const bool isOne = folder.ends_with(".appex") || (folder != kPlugIns && nearest::to(folder, {kPlugIns}));
        if (isOne) Findings{path + '/' + folder, problems}.add(Rule::wrongFolder, {}, {});
    }
    const fs::path plugIns = fs::path{path} / kPlugIns;
    const std::set<std::string> inside = foldersIn(plugIns);
    if (inside.empty()) Findings{plugIns.string(), problems}.add(Rule::noPlugIns, {}, {});
    std::map<std::string, std::string> seen;  // where each identifier stands
    for (const std::string& name : inside) {
        const fs::path plugIn = plugIns / name;
        judgePlugIn(plugIn.string(), problems);
        const std::string identifier = identifierOf(plugIn);
        if (identifier.empty()) continue;
        const auto [at, isNew] = seen.emplace(identifier, plugIn.string());
        if (isNew) continue;
        Findings second{(plugIn / bundle::kInfoFile).string(), problems};
        if (!second.read(bundle::kInfoLimit, bundle::kInfoValues)) continue;
        second.add(Rule::sameIdentifier, {bundle::kIdentifierKey}, {text::format("{} has it, too", at->second)});
    }
}

}  // namespace verify
