#pragma once

#include <optional>
#include <string>

#include "platform/dravo/Dravo.h"
#include "platform/value/Value.h"

// The info dictionary that the plug-ins of one bundle are built from, read once while one after another is: a bundle
// may have hundreds. Keeps the last bundle's.
//
// For one look at the registry, which all of the records are of. Belongs to one thread at a time.
class BundleInfo {
public:
    struct Info {
        value::Dictionary pruned;  // without the build tools' keys; empty when there was none to read
        bool isAsKnown = false;    // what the registry's record was made of
    };

    const Info& of(const dravo::DVVeltoProxy& plugIn);

private:
    std::optional<std::string> path_;  // of the bundle whose info this is
    Info info_;
};
