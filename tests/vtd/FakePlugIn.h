#pragma once

#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/dravo/Dravo.h"

namespace fake {

using Text = std::optional<std::string>;

// What a registry says of a plug-in that lies nowhere: for records of which only the identifier and the entitlements
// matter.
struct PlugIn : dravo::DVVeltoProxy {
    PlugIn(std::string id, Text where) : identifier{std::move(id)}, path{std::move(where)} {}
    const Text& bundlePath() const override { return path; }
    value::Result<file::UniqueFd> openBundle() const override { return value::posixError(ENOENT, identifier); }
    value::Result<dravo::DVBundleReading> readInfo() const override { return value::posixError(ENOENT, identifier); }
    const value::Uuid& pluginUUID() const override { return uuid; }
    const std::string& pluginIdentifier() const override { return identifier; }
    const std::string& originalIdentifier() const override { return identifier; }
    const std::string& bundleIdentifier() const override { return identifier; }
    const std::string& bundleVersion() const override { return identifier; }
    std::optional<value::Dictionary> pluginDictionary() const override { return {}; }
    value::Date registrationDate() const override { return {}; }
    bool onSystemPartition() const override { return false; }
    std::optional<dravo::DVBundleProxy> containingBundle() const override { return {}; }
    Text localizedName() const override { return {}; }
    Text localizedShortName() const override { return {}; }
    const value::Dictionary& entitlements() const override { return held; }
    file::Identity bundleIdentity() const override { return {}; }
    dravo::DVFingerprint fingerprint() const override { return {}; }
    std::optional<dravo::DVImage> image(dravo::DVImage::IsSound /*isSound*/) const override { return {}; }
    void keepImage(std::span<const std::byte> /*bytes*/) const override {}
    Text dataContainerPath() const override { return "/data"; }
    bool hasDataContainer() const override { return true; }

    std::string identifier;
    Text path;
    value::Uuid uuid = value::Uuid::random();
    value::Dictionary held;
};

}  // namespace fake
