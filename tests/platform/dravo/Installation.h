#pragma once

#include <algorithm>
#include <condition_variable>
#include <mutex>

#include "platform/dravo/Workspace.h"
#include "tests/support/Words.h"

namespace dravo {

const Registrant kAnybody{[] { return false; }};

// Remembers what it is told, as "+identifier" and "-identifier".
class Witness : public DVWorkspaceObserver {
public:
    using OnUninstall = std::function<void(const PluginList& plugins)>;
    explicit Witness(OnUninstall onUninstall) : onUninstall_{std::move(onUninstall)} {}

    void pluginsDidInstall(const PluginList& plugins) override { tell('+', plugins); }
    void pluginsWillUninstall(const PluginList& plugins) override {
        if (onUninstall_) onUninstall_(plugins);
        tell('-', plugins);
    }

    // What was told since the last call, in words, once it is as long as what is expected, or does not come.
    std::string told(std::string_view expected) {
        std::unique_lock lock{mutex_};
        told_.wait_for(lock, std::chrono::seconds{20}, [&] { return words_.size() >= expected.size(); });
        return std::exchange(words_, {});
    }

private:
    void tell(char sign, const PluginList& plugins) {
        const std::lock_guard lock{mutex_};
        for (const auto& plugIn : plugins) words_ += (words_.empty() ? ""s : " "s) + sign + plugIn->pluginIdentifier();
        told_.notify_all();
    }

    const OnUninstall onUninstall_;
    std::mutex mutex_;
    std::condition_variable told_;
    std::string words_;
};

// A root of its own in which a test installs applications and plug-ins, and the workspace that looks at it.
class Installation {
public:
    Installation() {
        for (const char* const name : {"state", "user", "system"}) fs::create_directory(root / name);
    }

    support::PrivateRoot root;
    support::LogLines log;

    // Paths below the root; files are replaced as an installer does, by renaming.
    void writeText(const std::string& path, const std::string& text) const {
        const std::string made = root.write("new", text);
        fs::create_directories(fs::path{root / path}.parent_path());
        fs::rename(made, root / path);
    }
    void write(const std::string& path, const Value& content) const { writeText(path, *plist::writeXml(content)); }
    void remove(const std::string& path) const {
        if (fs::remove_all(root / path) == 0) throw std::runtime_error{"nothing at " + path};
    }
    void move(const std::string& from, const std::string& to) const { fs::rename(root / from, root / to); }

    // A plug-in's bundle: its folder with an Info.plist of the identifier and, more entries of the plug-in dictionary.
    std::string plugIn(const std::string& path, const std::string& identifier,
                       const Dictionary& description = {}) const {
        write(path + "/Info.plist", Dictionary{{"QFBundleIdentifier", identifier}, {"KXExtension", description}});
        return root / path;
    }

    // Opens, or opens again after a stop. Fails the test when that cannot be done.
    DVApplicationWorkspace& start(const Noticing& noticing = {}) {
        stop();
        auto opened = openWorkspace(noticing);
        if (!opened) throw std::runtime_error{whyNot(opened)};
        workspace_ = *std::move(opened);
        return *workspace_;
    }
    void stop() { workspace_ = nullptr; }
    void settle() const { workspace_->unregisterPlugin("/"); }  // does nothing, when all that is announced is complete

    // Whether it comes true before long.
    static bool comes(const std::function<bool()>& condition) {
        for (int i = 0; i < 2000 && !condition(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds{10});
        return condition();
    }

    // Tells the test what is announced from now on, and of a first one what was while nobody watched.
    std::shared_ptr<Witness> witness(Witness::OnUninstall onUninstall = {}) const {
        auto witness = std::make_shared<Witness>(std::move(onUninstall));
        workspace_->addObserver(witness);
        return witness;
    }

    // Of all that is installed, in the registry's order.
    std::string identifiers() const {
        const auto installed = workspace_->installedPlugins();
        std::string words;
        for (const auto& plugIn : *installed) words += (words.empty() ? "" : " ") + plugIn->pluginIdentifier();
        return words;
    }
    std::shared_ptr<const DVVeltoProxy> at(const std::string& path) const {
        return workspace_->pluginAtPath(root / path);
    }

private:
    std::shared_ptr<DVApplicationWorkspace> workspace_;
};

}  // namespace dravo
