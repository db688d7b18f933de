#include "tests/platform/dravo/Installation.h"

namespace dravo {

Installation::Installation() {
    for (const char* const name : {"state", "user", "system"}) fs::create_directory(root / name);
}

std::string Installation::write(const std::string& path, const Value& content) const {
    return writeText(path, *plist::writeXml(content));
}

std::string Installation::writeText(const std::string& path, const std::string& text) const {
    const std::string made = root.write("new", text);
    const fs::path file = root / path;
    fs::create_directories(file.parent_path());
    fs::rename(made, file);
    return file;
}

void Installation::remove(const std::string& path) const {
    if (fs::remove_all(root / path) == 0) throw std::runtime_error{"nothing at " + path};
}

void Installation::move(const std::string& from, const std::string& to) const {
    fs::rename(root / from, root / to);
}

std::string Installation::plugIn(const std::string& path, const std::string& identifier,
                                 const Dictionary& description) const {
    write(path + "/Info.plist", Dictionary{{"QFBundleIdentifier", identifier}, {"KXExtension", description}});
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

Texts Installation::identifiers() const {
    Texts found;
    const auto installed = workspace_->installedPlugins();
    for (const auto& plugIn : *installed) found.push_back(plugIn->pluginIdentifier());
    return found;
}

std::shared_ptr<const DVVeltoProxy> Installation::at(const std::string& path) const {
    return workspace_->pluginAtPath(root / path);
}

Texts Witness::await(std::size_t count) {
    std::unique_lock lock{mutex_};
    told_.wait_for(lock, std::chrono::seconds{20}, [&] { return events_.size() >= count; });
    return std::exchange(events_, {});
}

void Witness::tell(char sign, const PluginList& plugins) {
    const std::lock_guard lock{mutex_};
    for (const auto& plugIn : plugins) events_.push_back(sign + plugIn->pluginIdentifier());
    told_.notify_all();
}

}  // namespace dravo
