#pragma once

#include <condition_variable>
#include <mutex>

#include "platform/dravo/Workspace.h"
#include "tests/support/Words.h"

namespace dravo {

// A root of its own in which a test installs applications and plug-ins, and the workspace that looks at it.
class Installation {
public:
    Installation();

    support::PrivateRoot root;

    // Paths below the root; files are replaced as an installer does, by renaming.
    std::string write(const std::string& path, const Value& content) const;
    std::string writeText(const std::string& path, const std::string& text) const;
    void remove(const std::string& path) const;
    void move(const std::string& from, const std::string& to) const;

    // A plug-in's bundle: its folder with an Info.plist of the identifier and, more entries of the plug-in dictionary.
    std::string plugIn(const std::string& path, const std::string& identifier,
                       const Dictionary& description = {}) const;

    // Opens, or opens again after a stop. Fails the test when that cannot be done.
    DVApplicationWorkspace& start(const Noticing& noticing = {});
    void stop() { workspace_ = nullptr; }

    void settle() const;  // waits until the change that is being announced is complete

    Texts identifiers() const;  // of all that is installed, in the registry's order
    std::shared_ptr<const DVVeltoProxy> at(const std::string& path) const;

    // The lines that were logged since the last call.
    Texts log() { return lines_.take(); }

private:
    support::LogLines lines_;
    std::shared_ptr<DVApplicationWorkspace> workspace_;
};

// Remembers what it is told, as "+identifier" and "-identifier".
class Witness : public DVWorkspaceObserver {
public:
    void pluginsDidInstall(const PluginList& plugins) override { tell('+', plugins); }
    void pluginsWillUninstall(const PluginList& plugins) override {
        if (onUninstall) onUninstall(plugins);
        tell('-', plugins);
    }

    // Waits until so many plug-ins were announced, and forgets them. Short when they do not come.
    Texts await(std::size_t count);

    std::function<void(const PluginList&)> onUninstall;  // set before the witness is added

private:
    void tell(char sign, const PluginList& plugins);

    std::mutex mutex_;
    std::condition_variable told_;
    Texts events_;
};

}  // namespace dravo
