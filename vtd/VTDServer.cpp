#include "vtd/VTDServer.h"

#include <algorithm>

#include "platform/file/File.h"
#include "platform/paths/Paths.h"
#include "platform/queue/Reactor.h"
#include "platform/readiness/Readiness.h"
#include "platform/services/Manager.h"
#include "vtd/VTDAnnotationStore.h"
#include "vtd/VTDMoxClient.h"

namespace {

// The process's one server. Weak, since main() keeps it alive: it must not outlive the services it uses.
VTAtomic<std::weak_ptr<VTDServer>>& sharedServer() {
    static VTAtomic<std::weak_ptr<VTDServer>> server;
    return server;
}

// Of the runtime directory nobody else is let in; these may be shared on purpose, so that it is only said.
void warnOfExposed(const std::string& directory) {
    if (const auto exposure = file::exposureOf(directory)) {
        logging::warning(text::format("{}: who can write there can change what is kept there", *exposure));
    }
}

}  // namespace

std::shared_ptr<VTDServer> VTDServer::server() {
    return sharedServer().load().lock();
}

std::shared_ptr<VTDServer> VTDServer::initForService(const std::string& service,
                                                     const std::optional<std::string>& database) {
    auto workspace = dravo::DVApplicationWorkspace::defaultWorkspace();
    if (!workspace) {
        logging::error(workspace.error().localizedDescription());
        return nullptr;
    }
    auto annotations = VTDAnnotationStore::initWithDatabase(database);
    if (!annotations) {
        logging::error(annotations.error().localizedDescription());
        return nullptr;
    }
    warnOfExposed(paths::directories().state);
    warnOfExposed(paths::directories().config);
    if (const auto file = file::finalPath((*annotations)->annotationsURL())) {
        const std::size_t slash = file->rfind('/');
        const std::string directory =
            slash == std::string::npos ? "." : file->substr(0, std::max<std::size_t>(slash, 1));
        if (directory != paths::directories().state) warnOfExposed(directory);
    }
    std::shared_ptr<VTDServer> server{new VTDServer{*std::move(annotations), *std::move(workspace), service}};
    // In this order: an earlier run's registrations are known, and the delegate is there, before the registry tells of
    // what was uninstalled while no daemon ran.
    static_cast<void>(services::Manager::shared());
    server->setDelegate(server);
    server->observeWorkspace();
    sharedServer().store(server);
    server->service_->setConnectionHandler(
        [weak = std::weak_ptr{server}](const std::shared_ptr<mox::Connection>& connection) {
            // The client lives on as the connection's context.
            if (auto owner = weak.lock()) VTDMoxClient::initWithConnection(connection, std::move(owner));
        });
    return server;
}

VTDServer::VTDServer(std::shared_ptr<VTDAnnotationStore> annotations,
                     std::shared_ptr<dravo::DVApplicationWorkspace> workspace, const std::string& service)
    : VTDatabase{std::move(annotations), std::move(workspace)},
      name_{service},
      moxQueue_{std::make_shared<queue::SerialQueue>("mox")},
      mainQueue_{std::make_shared<queue::SerialQueue>("service", queue::QualityOfService::userInitiated)},
      turns_{std::make_shared<queue::Turns>(*mainQueue_)},
      syncQueue_{std::make_shared<queue::SerialQueue>("serverSync")},
      releaseQueue_{std::make_shared<queue::SerialQueue>("releases", queue::QualityOfService::utility)},
      service_{mox::listen(service, moxQueue_)},
      sandbox_{sandbox::Service::create(service)},
      userPrefs_{std::make_shared<VTDUserPrefs>()} {}

void VTDServer::removedPlugIns(const dravo::PluginList& plugIns) {
    for (const auto& plugIn : plugIns) {
        services::Manager::shared()->remove(
            {plugIn->bundleIdentifier(), plugIn->bundleVersion(), plugIn->bundlePath().value_or(std::string{})},
            mainQueue_, [identifier = plugIn->bundleIdentifier()](int result) {
                if (result == 0 || result == services::kNotRegistered) return;
                logging::notice(text::format("PLUGIN REMOVAL:{} RESULT:{}", identifier, result));
            });
    }
}

std::optional<value::Error> VTDServer::start() {
    // First what clients need as soon as they have been answered.
    if (auto error = sandbox_->resume()) return error;
    if (auto error = service_->resume()) return error;
    const paths::Directories& directories = paths::directories();
    log("serving {}/{}: {} plug-ins known; state {}, config {}, volumes {} and {}", directories.runtime, name_,
        workspace()->installedPlugins().value_or(dravo::PluginList{}).size(), directories.state, directories.config,
        directories.userVolume, directories.systemVolume);
    if (const auto error = readiness::announce()) logging::warning(error->localizedDescription());
    return {};
}

std::optional<value::Error> VTDServer::run() {
    if (auto error = start()) return error;
    queue::runMainLoop();
}
