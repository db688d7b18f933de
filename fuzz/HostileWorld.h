#pragma once

#include <string>
#include <vector>

#include "platform/value/Uuid.h"
#include "vtd/VTDServer.h"

namespace fuzz {

// A daemon in this process, on a root of its own, where bundles of every bad intention are installed beside honest
// ones: many plug-ins of one bundle, long lists, many shared resources, keys of a megabyte, descriptions that are
// refused, plug-ins that are elected automatically, paths through many links. There is one, which lasts as long as the
// process.
class HostileWorld {
public:
    static const HostileWorld& get();

    std::string socketPath() const;

    // What a client can name.
    std::vector<value::Uuid> plugIns;
    std::vector<std::string> paths;    // of bundles, applications, and of what is none
    std::vector<std::string> addable;  // of bundles that are not installed, but can be added

    // Waits until the daemon is done with what it has answered.
    void settle() const;

    // Makes the daemon's state what it was at the beginning, but for the plug-ins that a client has added.
    void restore() const;

private:
    HostileWorld();
    void install(const std::string& bundle, const value::Dictionary& extension,
                 const value::Dictionary& entitlements = {}) const;
    std::string makeLinks() const;

    std::shared_ptr<VTDServer> server_;
    value::Dictionary annotations_;  // at the beginning
};

}  // namespace fuzz
