#pragma once

#include <string>
#include <vector>

#include "platform/value/Uuid.h"
#include "vtd/VTDServer.h"

namespace fuzz {

// A daemon in this process, on a root of its own, where bundles of every bad intention are installed beside honest
// ones: many plug-ins of one bundle, long lists, many shared resources, keys of a megabyte, descriptions that are
// refused or just within every bound, plug-ins that are elected automatically, paths through many links. There is one,
// which lasts as long as the process.
class HostileWorld {
public:
    // Few of each kind, and of what a request brings, so that an input takes milliseconds; or hundreds, for requests as
    // long as they may be.
    enum class Size { small, crowded };
    static void make(Size size);
    static const HostileWorld& get();

    const bool isCrowded;

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
    explicit HostileWorld(Size size);
    void installWithinBounds() const;
    void installMany();
    void install(const std::string& bundle, const value::Dictionary& extension,
                 const value::Dictionary& entitlements = {}) const;
    std::string makeLinks() const;

    std::shared_ptr<VTDServer> server_;
    value::Dictionary annotations_;  // at the beginning
};

}  // namespace fuzz
