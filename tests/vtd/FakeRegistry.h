#pragma once

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/dravo/Dravo.h"

// A registry whose records a test makes up; it finds them by walking its list.
namespace fake {

using Text = std::optional<std::string>;
using Names = std::optional<std::vector<std::string>>;

struct Application : dravo::DVApplicationProxy {
    const std::string& bundlePath() const override { return path; }
    Text bundleIdentifier() const override { return {}; }
    Text localizedName() const override { return "The Application"; }
    Text bundleContainerPath() const override { return {}; }
    bool isPlaceholder() const override { return placeholder; }

    std::string path = "/a.app";
    bool placeholder = false;
};

struct PlugIn : dravo::DVVeltoProxy {
    PlugIn(std::string id, Text where) : identifier{std::move(id)}, path{std::move(where)} {}
    const Text& bundlePath() const override { return path; }
    const value::Uuid& pluginUUID() const override { return uuid; }
    const std::string& pluginIdentifier() const override { return identifier; }
    const std::string& originalIdentifier() const override { return original; }
    const std::string& bundleIdentifier() const override { return identifier; }
    const std::string& bundleVersion() const override { return version; }
    std::optional<value::Dictionary> pluginDictionary() const override { return {}; }
    value::Date registrationDate() const override { return registered; }
    bool onSystemPartition() const override { return false; }
    std::optional<dravo::DVBundleProxy> containingBundle() const override { return container; }
    Text localizedName() const override { return name; }
    Text localizedShortName() const override { return {}; }
    value::Dictionary entitlements() const override { return held; }
    Text dataContainerPath() const override { return dataContainer; }

    std::string identifier;
    Text path;
    value::Uuid uuid = value::Uuid::random();
    std::string original = "org.example.original";
    std::string version = "7";
    value::Date registered;
    std::optional<dravo::DVBundleProxy> container;
    Text name;
    value::Dictionary held;
    Text dataContainer = "/data";
};

struct Workspace : dravo::DVApplicationWorkspace {
    void addObserver(const std::shared_ptr<dravo::DVWorkspaceObserver>& added) override { observer = added; }
    std::optional<dravo::PluginList> installedPlugins() const override { return installed; }
    std::optional<dravo::PluginList> plugins(const Names& identifiers, const Names& points, const Text&,
                                             const Filter& filter) const override {
        asked = {identifiers, points};
        if (!answersQueries) return {};
        dravo::PluginList found;
        for (const auto& plugIn : installed) {
            if (filter(plugIn->pluginIdentifier(), plugIn->entitlements())) found.push_back(plugIn);
        }
        return found;
    }
    std::shared_ptr<const dravo::DVVeltoProxy> plugin(const value::Uuid& uuid) const override {
        for (const auto& plugIn : installed) {
            if (plugIn->pluginUUID() == uuid) return plugIn;
        }
        return nullptr;
    }
    std::shared_ptr<const dravo::DVVeltoProxy> pluginAtPath(const std::string& path) const override {
        for (const auto& plugIn : installed) {
            if (plugIn->bundlePath() == path) return plugIn;
        }
        return nullptr;
    }
    std::shared_ptr<const dravo::DVApplicationProxy> applicationAtPath(const std::string& path) const override {
        return application->path == path ? application : nullptr;
    }
    dravo::PluginList pluginsOf(const dravo::DVApplicationProxy&) const override { return installed; }
    bool registerPlugin(const std::string&) override { return false; }
    bool unregisterPlugin(const std::string&) override { return true; }
    void clearSchemaCaches() override { ++cleared; }

    dravo::PluginList installed;
    std::shared_ptr<Application> application = std::make_shared<Application>();
    std::weak_ptr<dravo::DVWorkspaceObserver> observer;
    bool answersQueries = true;
    int cleared = 0;
    mutable std::optional<std::pair<Names, Names>> asked;
};

}  // namespace fake
