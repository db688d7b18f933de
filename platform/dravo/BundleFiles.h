#pragma once

#include <memory>
#include <string>

#include "platform/dravo/records/Facts.h"
#include "platform/dravo/scan/InfoFile.h"
#include "platform/value/Error.h"

namespace dravo {

// What the files of a bundle say, read where that may block, so that the registry need not read them. Good as long as
// the files have the stamps that they had before they were read.
struct BundleFiles {
    std::string path;
    BundleStamps stamps;
    value::Result<InfoFile> info;
    value::Result<value::Dictionary> entitlements;  // none when there is no such file
};

// Of the bundle at the canonical path. May block. Null when there is nothing to be read there, when it may never
// answer, or when it has changed so lately that its stamps could not tell of the next change.
std::shared_ptr<const BundleFiles> readBundleFiles(const std::string& path);

}  // namespace dravo
