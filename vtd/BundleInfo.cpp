#include "vtd/BundleInfo.h"

#include "vtd/VTDPlugIn.h"

const BundleInfo::Info& BundleInfo::of(const dravo::DVVeltoProxy& plugIn) {
    const auto& path = plugIn.bundlePath();
    if (!path || path_ == path) return info_;
    path_ = path;
    const auto reading = plugIn.readInfo();
    info_ = {};
    if (reading) info_ = {VTDPlugIn::prunedInfoDictionaryFor(reading->info), reading->isAsKnown};
    return info_;
}
