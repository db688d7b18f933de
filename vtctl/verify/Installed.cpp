#include "vtctl/verify/Installed.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "platform/paths/Paths.h"

namespace verify {

namespace {

namespace fs = std::filesystem;

// Canonical paths of the folders in one.
std::vector<fs::path> foldersIn(const fs::path& directory) {
    std::vector<fs::path> folders;
    std::error_code error;
    for (fs::directory_iterator entry{directory, error}, end; !error && entry != end; entry.increment(error)) {
        std::error_code none;
        if (!entry->is_directory(none)) continue;
        fs::path path = fs::canonical(entry->path(), none);
        if (!none) folders.push_back(std::move(path));
    }
    return folders;
}

std::vector<std::string> volumes() {
    return {paths::directories().userVolume, paths::directories().systemVolume};
}

}  // namespace

std::vector<std::string> installedApplications() {
    std::vector<std::string> found;
    for (const std::string& volume : volumes()) {
        for (const fs::path& path : foldersIn(volume + "/Applications")) {
            if (path.extension() == ".app") {
                found.push_back(path.string());
                continue;
            }
            for (const fs::path& inside : foldersIn(path)) {  // an application's container
                if (inside.extension() == ".app") found.push_back(inside.string());
            }
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

std::vector<std::string> installedPlugIns() {
    std::vector<fs::path> places{paths::directories().systemVolume};
    for (const std::string& application : installedApplications()) places.emplace_back(application);
    std::vector<std::string> found;
    for (const fs::path& place : places) {
        for (const fs::path& path : foldersIn(place / "PlugIns")) found.push_back(path.string());
    }
    std::sort(found.begin(), found.end());
    return found;
}

}  // namespace verify
