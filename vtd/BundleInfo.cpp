#include "vtd/BundleInfo.h"

#include "Velto/VTBundle.h"
#include "vtd/VTDPlugIn.h"

const BundleInfo::Info& BundleInfo::of(const dravo::DVVeltoProxy& plugIn) {
    const auto& path = plugIn.bundlePath();
    if (!path || path_ == path) return info_;
    path_ = path;
    const auto info = VTBundle::initWithURL(*path)->infoDictionary();
    info_ = {VTDPlugIn::prunedInfoDictionaryFor(info), info.has_value()};
    return info_;
}
