#include "platform/dravo/Workspace.h"

#include <mutex>
#include <utility>

namespace dravo {

namespace {

// The reading side: every query takes the published snapshot and answers from it.
class Workspace final : public DVApplicationWorkspace {
public:
    explicit Workspace(std::shared_ptr<Registrar> registrar) : registrar_{std::move(registrar)} {}
    Workspace(const Workspace&) = delete;
    Workspace& operator=(const Workspace&) = delete;
    ~Workspace() override { registrar_->stop(); }

    void addObserver(const std::shared_ptr<DVWorkspaceObserver>& observer) override {
        registrar_->announcements().addObserver(observer);
    }

    std::optional<PluginList> installedPlugins() const override { return registrar_->snapshot()->plugIns(); }

    std::optional<PluginList> plugins(const std::optional<std::vector<std::string>>& identifiers,
                                      const std::optional<std::vector<std::string>>& extensionPoints,
                                      const std::optional<std::string>& version, const Filter& filter) const override;

    std::shared_ptr<const DVVeltoProxy> plugin(const value::Uuid& uuid) const override {
        return registrar_->snapshot()->plugIn(uuid);
    }

    std::shared_ptr<const DVVeltoProxy> pluginAtPath(const std::string& path) const override;
    std::shared_ptr<const DVApplicationProxy> applicationAtPath(const std::string& path) const override;

    PluginList pluginsOf(const DVApplicationProxy& application) const override {
        return registrar_->snapshot()->plugInsWithin(application.bundlePath());
    }

    std::size_t registerPlugins(std::span<const Registration> bundles, const Registrant& registrant) override {
        return registrar_->registerPlugins(bundles, registrant);
    }
    std::size_t unregisterPlugins(std::span<const Removal> bundles) override {
        return registrar_->unregisterPlugins(bundles);
    }
    void clearSchemaCaches() override { registrar_->clearSchemaCaches(); }

private:
    const std::shared_ptr<Registrar> registrar_;
};

std::optional<PluginList> Workspace::plugins(const std::optional<std::vector<std::string>>& identifiers,
                                             const std::optional<std::vector<std::string>>& extensionPoints,
                                             const std::optional<std::string>& version, const Filter& filter) const {
    const auto snapshot = registrar_->snapshot();
    const auto numbers = snapshot->narrow(identifiers, extensionPoints);
    PluginList accepted;
    accepted.reserve(numbers.size());
    for (const std::uint32_t number : numbers) {
        const auto& plugIn = snapshot->plugIns()[number];
        if (version && plugIn->bundleVersion() != *version) continue;
        if (filter && !filter(plugIn->pluginIdentifier(), Snapshot::entitlements(*plugIn))) continue;
        accepted.push_back(plugIn);
    }
    return accepted;
}

std::shared_ptr<const DVVeltoProxy> Workspace::pluginAtPath(const std::string& path) const {
    const auto bundle = registrar_->snapshot()->bundle(path);
    return bundle && !bundle->plugIns().empty() ? proxy(bundle, 0) : nullptr;
}

std::shared_ptr<const DVApplicationProxy> Workspace::applicationAtPath(const std::string& path) const {
    return registrar_->snapshot()->application(path);
}

}  // namespace

value::Result<std::shared_ptr<DVApplicationWorkspace>> openWorkspace(const Noticing& noticing) {
    auto registrar = Registrar::open(noticing);
    if (!registrar) return registrar.error();
    return std::shared_ptr<DVApplicationWorkspace>{std::make_shared<Workspace>(std::move(*registrar))};
}

value::Result<std::shared_ptr<DVApplicationWorkspace>> DVApplicationWorkspace::open() {
    return openWorkspace({});
}

value::Result<std::shared_ptr<DVApplicationWorkspace>> DVApplicationWorkspace::defaultWorkspace() {
    static std::mutex mutex;
    // Never destroyed: other threads may still be asking it while the process ends.
    static auto& workspace = *new std::shared_ptr<DVApplicationWorkspace>;
    const std::lock_guard lock{mutex};
    if (!workspace) {
        auto opened = open();
        if (!opened) return opened.error();
        workspace = std::move(*opened);
    }
    return workspace;
}

}  // namespace dravo
