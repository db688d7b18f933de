#include "platform/paths/Paths.h"

#include <pwd.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/text/Format.h"

namespace paths {

namespace {

constexpr std::string_view kName = "halvern";

std::string withoutTrailingSeparators(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

// Nothing for a variable that is unset or empty, or relative: the base directory rules have that one ignored.
std::string absoluteFrom(const char* variable) {
    const char* text = ::getenv(variable);
    return text != nullptr && text[0] == '/' ? withoutTrailingSeparators(text) : std::string{};
}

std::string home() {
    if (std::string path = absoluteFrom("HOME"); !path.empty()) return path;
    std::array<char, 4096> buffer;
    passwd entry{};
    passwd* found = nullptr;
    const bool known = ::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr;
    return known && entry.pw_dir[0] == '/' ? withoutTrailingSeparators(entry.pw_dir) : "/";
}

std::string join(const std::string& directory, std::string_view name) {
    return text::format("{}/{}", directory == "/" ? "" : directory, name);
}

std::string baseDirectory(const char* variable, std::string_view belowHome) {
    const std::string base = absoluteFrom(variable);
    return join(base.empty() ? join(home(), belowHome) : base, kName);
}

std::string runtimeDirectory() {
    const std::string base = absoluteFrom("XDG_RUNTIME_DIR");
    // Outside a session. Whoever makes the directory checks that it is ours alone: anyone may have been there first.
    return base.empty() ? text::format("/tmp/{}-{}", kName, ::getuid()) : join(base, kName);
}

// A relative root, for who did not ask for misconfiguration(), is taken from the working directory: to ignore it would
// be to work on the real directories instead.
std::string privateRoot() {
    const char* root = ::getenv("HALVERN_ROOT");
    if (root == nullptr || root[0] == '\0') return {};
    std::error_code error;
    const std::string absolute = std::filesystem::absolute(root, error).lexically_normal().string();
    return withoutTrailingSeparators(error ? root : absolute);
}

// Never destroyed: threads of the process may ask until its very end.
Directories& current() {
    static Directories& directories = *new Directories{readDirectories()};
    return directories;
}

}  // namespace

std::optional<std::string> misconfiguration() {
    const char* root = ::getenv("HALVERN_ROOT");
    if (root == nullptr || root[0] == '\0' || root[0] == '/') return {};
    return text::format("HALVERN_ROOT is \"{}\": it must be an absolute path", root);
}

Directories readDirectories() {
    if (const std::string root = privateRoot(); !root.empty()) {
        return {join(root, "run"),  join(root, "state"),  join(root, "config"),
                join(root, "user"), join(root, "system"), true};
    }
    return {runtimeDirectory(),
            baseDirectory("XDG_STATE_HOME", ".local/state"),
            baseDirectory("XDG_CONFIG_HOME", ".config"),
            baseDirectory("XDG_DATA_HOME", ".local/share"),
            text::format("/usr/share/{}", kName),
            false};
}

const Directories& directories() {
    return current();
}

void setDirectories(Directories directories) {
    current() = std::move(directories);
}

}  // namespace paths
