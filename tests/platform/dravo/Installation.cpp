#include "tests/platform/dravo/Installation.h"

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include <gtest/gtest.h>

#include "platform/file/File.h"
#include "platform/logging/Log.h"
#include "platform/paths/Paths.h"
#include "platform/plist/Plist.h"

namespace dravo {

namespace {
constexpr std::chrono::seconds kPatience{20};
}

Installation::Installation() {
    const std::string base = *file::canonicalPath(root.path());
    for (const char* const directory : {"run", "state", "config", "user", "system"}) {
        std::filesystem::create_directory(base + "/" + directory);
    }
    paths::setDirectories({base + "/run", base + "/state", base + "/config", base + "/user", base + "/system", true});
    logging::setSink([this](logging::Level, std::string_view line) {
        const std::lock_guard lock{mutex_};
        lines_.emplace_back(line);
    });
}

Installation::~Installation() {
    stop();
    logging::setSink({});
}

std::string Installation::write(const std::string& path, const value::Value& content) const {
    const auto text = plist::writeXml(content);
    if (!text) throw std::runtime_error{text.error().localizedDescription()};
    return writeText(path, *text);
}

std::string Installation::writeText(const std::string& path, const std::string& text) const {
    const std::string made = root.write("new", text);
    const std::filesystem::path file = root / path;
    std::filesystem::create_directories(file.parent_path());
    std::filesystem::rename(made, file);
    return file;
}

void Installation::remove(const std::string& path) const {
    if (std::filesystem::remove_all(root / path) == 0) throw std::runtime_error{"nothing at " + path};
}

void Installation::move(const std::string& from, const std::string& to) const {
    std::filesystem::rename(root / from, root / to);
}

std::string Installation::plugIn(const std::string& path, const std::string& identifier,
                                 const value::Dictionary& description) const {
    write(path + "/Info.plist", value::Dictionary{{"QFBundleIdentifier", identifier}, {"KXExtension", description}});
    return root / path;
}

DVApplicationWorkspace& Installation::start(const Noticing& noticing) {
    stop();
    auto opened = openWorkspace(noticing);
    if (!opened) throw std::runtime_error{opened.error().localizedDescription()};
    workspace_ = std::move(*opened);
    return *workspace_;
}

void Installation::settle() const {
    workspace_->unregisterPlugin("/");  // does nothing, in its turn
}

std::vector<std::string> Installation::identifiers() const {
    std::vector<std::string> found;
    const auto installed = workspace_->installedPlugins();
    for (const auto& plugIn : *installed) found.push_back(plugIn->pluginIdentifier());
    return found;
}

std::shared_ptr<const DVVeltoProxy> Installation::at(const std::string& path) const {
    return workspace_->pluginAtPath(root / path);
}

std::vector<std::string> Installation::log() {
    const std::lock_guard lock{mutex_};
    return std::exchange(lines_, {});
}

std::vector<std::string> Witness::await(std::size_t count) {
    std::unique_lock lock{mutex_};
    told_.wait_for(lock, kPatience, [&] { return events_.size() >= count; });
    return std::exchange(events_, {});
}

void Witness::tell(char sign, const PluginList& plugins) {
    const std::lock_guard lock{mutex_};
    for (const auto& plugIn : plugins) events_.push_back(sign + plugIn->pluginIdentifier());
    told_.notify_all();
}

}  // namespace dravo
