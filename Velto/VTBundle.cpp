#include "Velto/VTBundle.h"

#include <utility>

using bundle::PathKind;

std::shared_ptr<VTBundle> VTBundle::initForMainBundle() {
    return initWithMoxBundle(bundle::Bundle::openMain());
}

std::shared_ptr<VTBundle> VTBundle::initWithURL(const std::string& url) {
    return initWithPath(url);
}

std::shared_ptr<VTBundle> VTBundle::initWithPath(const std::string& path) {
    return initWithMoxBundle(bundle::Bundle::open(path, PathKind::directory));
}

std::shared_ptr<VTBundle> VTBundle::initWithExecutableURL(const std::string& url) {
    return initWithExecutablePath(url);
}

std::shared_ptr<VTBundle> VTBundle::initWithExecutablePath(const std::string& path) {
    std::shared_ptr<const bundle::Bundle> found = bundle::Bundle::open(path, PathKind::executable);
    if (!found->bundlePath()) found = bundle::Bundle::open(path, PathKind::directory);
    return initWithMoxBundle(std::move(found));
}

std::shared_ptr<VTBundle> VTBundle::initWithMoxBundle(std::shared_ptr<const bundle::Bundle> bundle) {
    return std::make_shared<VTBundle>(std::move(bundle));
}

VTBundle::VTBundle(std::shared_ptr<const bundle::Bundle> bundle) : bundle_{std::move(bundle)} {}

std::optional<std::string> VTBundle::stringProperty(Property property) const {
    switch (property) {
        case Property::bundlePath: return bundle()->bundlePath();
        case Property::executablePath: return bundle()->executablePath();
        case Property::supportPath: return bundle()->supportPath();
    }
    return {};
}

std::optional<value::Dictionary> VTBundle::infoDictionary() const {
    return bundle()->infoDictionary();
}

std::optional<std::string> VTBundle::bundleIdentifier() const {
    const auto info = infoDictionary();
    const std::string* identifier = info ? info->string(bundle::kIdentifierKey) : nullptr;
    return identifier != nullptr ? std::optional{*identifier} : std::nullopt;
}

std::optional<std::string> VTBundle::path() const {
    return stringProperty(Property::bundlePath);
}

std::optional<std::string> VTBundle::supportPath() const {
    // Two threads that fetch at once read the same; which copy is kept does not matter.
    if (auto kept = supportPath_.load()) return kept;
    auto fetched = stringProperty(Property::supportPath);
    supportPath_.store(fetched);
    return fetched;
}

std::optional<std::string> VTBundle::bundleDirectory(std::string_view name) const {
    auto directory = supportPath();
    if (!directory) return {};
    if (!directory->ends_with('/')) *directory += '/';
    directory->append(name);
    return directory;
}

std::optional<std::string> VTBundle::executablePath() const {
    if (auto executable = stringProperty(Property::executablePath)) return executable;
    return path();
}
