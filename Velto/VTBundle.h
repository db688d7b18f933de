#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Velto/VTAtomic.h"
#include "platform/bundle/Bundle.h"

// One small view of a bundle on disk (application, app extension or plug-in): where it is, what its info dictionary
// says, where its executable and its directories are. It holds an opened bundle of the platform's bundle reader, whose
// properties are empty when there is no bundle at the path; no initialiser fails.
//
// A "URL", here and in all of Velto, is an absolute file-system path: nothing in this system lies anywhere but in the
// file system. Properties keep their names (`url`, `containingUrl`) and hold paths; a line of the log that names a URL
// names the path.
//
// Threading: every member may be called from any thread.
class VTBundle {
public:
    static std::shared_ptr<VTBundle> initForMainBundle();  // the running program's
    static std::shared_ptr<VTBundle> initWithURL(const std::string& url);
    static std::shared_ptr<VTBundle> initWithPath(const std::string& path);  // of the bundle's directory
    static std::shared_ptr<VTBundle> initWithExecutableURL(const std::string& url);

    // The bundle that contains the executable; when it sits in none, whatever is found at the path as a directory.
    static std::shared_ptr<VTBundle> initWithExecutablePath(const std::string& path);

    static std::shared_ptr<VTBundle> initWithMoxBundle(std::shared_ptr<const bundle::Bundle> bundle);

    // Shares the bundle, which must not be null here nor in setBundle(): where there is none at a path, the platform's
    // reader answers one without properties. The initialisers above never answer null.
    explicit VTBundle(std::shared_ptr<const bundle::Bundle> bundle);
    VTBundle(const VTBundle&) = delete;
    VTBundle& operator=(const VTBundle&) = delete;

    std::shared_ptr<const bundle::Bundle> bundle() const { return bundle_.load(); }
    void setBundle(std::shared_ptr<const bundle::Bundle> bundle) { bundle_.store(std::move(bundle)); }

    enum class Property { bundlePath, executablePath, supportPath };
    std::optional<std::string> stringProperty(Property property) const;

    std::optional<value::Dictionary> infoDictionary() const;
    std::optional<std::string> bundleIdentifier()
        const;  // nothing without an info dictionary, or without a string there

    std::optional<std::string> url() const { return path(); }
    std::optional<std::string> path() const;
    std::optional<std::string> supportPath() const;  // fetched once, then kept, even when setBundle() is called
    std::optional<std::string> bundleDirectory(std::string_view name) const;  // nothing without a support directory
    std::optional<std::string> executablePath() const;                        // else the bundle's own path
    std::optional<std::string> plugInsPath() const { return bundleDirectory("PlugIns"); }

private:
    VTAtomic<std::shared_ptr<const bundle::Bundle>> bundle_;
    mutable VTAtomic<std::optional<std::string>> supportPath_;
};
