// What plug-ins and applications have in common.

#include "platform/bundle/Bundle.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <string_view>

#include "platform/entitlements/Entitlements.h"
#include "platform/file/UniqueFd.h"
#include "platform/paths/Paths.h"
#include "platform/text/Format.h"
#include "vtctl/verify/Verify.h"

namespace verify {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kEntitlementsLimit = std::size_t{1} << 20;

bool equalsIgnoringCase(std::string_view one, std::string_view other) {
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); });
}

std::optional<std::string> otherInfo(const std::string& bundle) {
    std::error_code error;
    for (fs::directory_iterator entry{bundle, error}, end; !error && entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (name != bundle::kInfoFile && equalsIgnoringCase(name, bundle::kInfoFile)) return name;
    }
    return {};
}

}  // namespace

std::optional<value::Dictionary> readInfo(Findings& findings, const std::string& bundle) {
    struct stat status {};
    if (::lstat(findings.file().c_str(), &status) == 0) {
        return findings.read(bundle::kInfoLimit, bundle::kInfoValues);
    }
    if (const auto other = otherInfo(bundle)) {
        findings.addAt(bundle + '/' + *other, Rule::infoName,
                       {text::format("is not called {}, as it must be", bundle::kInfoFile)});
    } else {
        findings.add(Rule::infoMissing, {}, {});
    }
    return {};
}

std::optional<value::Dictionary> readEntitlements(Findings& findings, const std::string& bundle, Level level) {
    const file::UniqueFd directory{::open(bundle.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
    struct stat status {};
    if (!directory || ::lstat(findings.file().c_str(), &status) != 0) return {};
    const auto held = findings.read(kEntitlementsLimit, bundle::kInfoValues);
    if (!held) return {};
    if (const auto honoured = entitlements::ofBundle(directory.get(), bundle); !honoured) {
        findings.add(Rule::entitlementsIgnored, {}, {honoured.error().localizedDescription()});
        return {};
    }
    findings.judgeKeys(*held, level, {});
    return held;
}

void judgeExecutable(Findings& findings, const std::string& bundle, const value::Dictionary& info) {
    const plist::Path key{bundle::kExecutableKey};
    const std::string* const name = info.string(bundle::kExecutableKey);
    if (name == nullptr) {
        if (!info.contains(bundle::kExecutableKey)) findings.add(Rule::noExecutableKey, key, {"is missing"});
        return;
    }
    const auto path = bundle::executableInBundle(bundle, info);
    if (!path) {
        return findings.add(
            Rule::badExecutableName, key,
            {text::format("\"{}\" is no file name; the executable lies directly in the bundle", *name)});
    }
    struct stat status {};
    if (::lstat(path->c_str(), &status) != 0) {
        findings.add(Rule::executableMissing, key, {text::format("there is no {}", *path)});
    } else if (!S_ISREG(status.st_mode)) {
        findings.add(
            Rule::notExecutable, key,
            {text::format("{} is no regular file, and cannot be started", *path), "put the program itself there"});
    } else if (::access(path->c_str(), X_OK) != 0) {
        findings.add(Rule::notExecutable, key,
                     {text::format("{} may not be executed", *path), text::format("chmod a+x {}", *path)});
    }
}

std::string sdkDirectory() {
    return paths::directories().systemVolume + "/SDKs";
}

Problems ofPath(const std::string& given) {
    Problems problems;
    fs::path path{given};
    if (!path.has_filename()) path = path.parent_path();
    const bool isInside = path.filename() == bundle::kInfoFile || path.filename() == entitlements::kFile;
    if (isInside) path = path.parent_path();
    struct stat status {};
    Findings whole{path.string(), problems};
    if (::stat(path.c_str(), &status) != 0) {
        whole.add(Rule::nothingThere, {}, {"there is nothing here that can be seen"});
    } else if (S_ISREG(status.st_mode) && path.extension() == ".plist") {
        judgeExtensionPoint(path.string(), problems);
    } else if (!S_ISDIR(status.st_mode)) {
        whole.add(Rule::noBundle, {}, {"is no folder, and so no bundle"});
    } else if (path.extension() == ".app") {
        judgeApplication(path.string(), problems);
    } else {
        judgePlugIn(path.string(), problems);
    }
    return problems;
}

}  // namespace verify
