#pragma once

#include <memory>
#include <stdexcept>
#include <string>

#include "platform/paths/Paths.h"
#include "tests/support/TemporaryDirectory.h"
#include "vtd/VTDServer.h"

// A world for the test program: the four directories lie under one temporary root, where nothing is installed but what
// a test installs. One for a whole program, since the registry of a process is.
class World {
public:
    static const World& get() {
        static const World world;
        return world;
    }

    const support::TemporaryDirectory& root() const { return root_; }

    // A server in this process, with an annotation file of its own, that listens on the service name.
    std::shared_ptr<VTDServer> serve(const std::string& service) const {
        auto server = VTDServer::initForService(service, root_ / (service + ".annotations"));
        if (!server) throw std::runtime_error{"no server"};
        if (const auto error = server->start()) throw std::runtime_error{error->localizedDescription()};
        return server;
    }

private:
    // The directories are not given back at the end: queues may still look there while the process ends.
    World() {
        paths::setDirectories(
            {root_ / "run", root_ / "state", root_ / "config", root_ / "user", root_ / "system", true});
    }

    const support::TemporaryDirectory root_;
};
