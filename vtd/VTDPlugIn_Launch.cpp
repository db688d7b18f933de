#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "Velto/VTBundle.h"
#include "Velto/VTError.h"
#include "Velto/VTInfoKeys.h"
#include "Velto/VTProtocol.h"
#include "platform/consent/Consent.h"
#include "platform/effort/Effort.h"
#include "platform/logging/Log.h"
#include "platform/mox/Encoder.h"
#include "platform/services/Manager.h"
#include "platform/text/Format.h"
#include "vtd/VTDPlugIn.h"

// Launch preparation: what the service manager is told about a plug-in that a host may have started. Built anew for
// each host.

namespace {

// The launch overlay, and the service dictionary in it.
constexpr char kPackageTypeKey[] = "QFBundlePackageType";
constexpr char kPackageType[] = "Mox!";
constexpr char kEnvironmentKey[] = "EnvironmentVariables";
constexpr char kProfileKey[] = "_SandboxProfile";
constexpr char kOmitParametersKey[] = "_OmitSandboxParameters";

// The environment of the plug-in's process.
constexpr char kHome[] = "HOME";
constexpr char kFixedHome[] = "QFFIXED_USER_HOME";
constexpr char kTemporary[] = "TMPDIR";

constexpr char kKeyboardPoint[] = "halvern.keyboard-service";
constexpr char kFilterPoint[] = "halvern.filtrane.filter-data";
constexpr char kKeyboardProfile[] = "keyboard";
constexpr char kFilterProfile[] = "network-filter";
constexpr char kUsualProfile[] = "plugin";

bool requestsOpenAccess(const VTDPlugIn& plugIn) {
    const value::Dictionary attributes = plugIn.attributes();
    const value::Value* requested = attributes.find(VTInfoKey::requestsOpenAccess);
    return requested != nullptr && *requested == value::Value{true};
}

bool mayGetOpenAccess(const VTDPlugIn& plugIn) {
    const std::string* const point = plugIn.plugInDictionary().string(VTInfoKey::extensionPoint);
    return point != nullptr && *point == kKeyboardPoint && requestsOpenAccess(plugIn);
}

// The daemon's choice: of what the plug-in says, only its kind and the wish for open access count.
const char* sandboxProfile(const VTDPlugIn& plugIn) {
    const std::string* const point = plugIn.plugInDictionary().string(VTInfoKey::extensionPoint);
    if (point == nullptr) return kUsualProfile;
    if (*point == kFilterPoint) return kFilterProfile;
    if (*point != kKeyboardPoint) return kUsualProfile;
    const bool open =
        mayGetOpenAccess(plugIn) && plugIn.allowedWexaServices().count(consent::kKeyboardNetworkService) != 0;
    return open ? kUsualProfile : kKeyboardProfile;
}

// What the plug-in asks for itself goes over the daemon's entries. An environment holds texts: anything else in it is
// passed over, and said.
value::Dictionary environment(const VTDPlugIn& plugIn, const std::optional<std::string>& dataContainer,
                              const value::Dictionary* own) {
    value::Dictionary::Builder made;
    if (dataContainer) {
        made.set(kHome, *dataContainer);
        made.set(kFixedHome, *dataContainer);
        made.set(kTemporary, *dataContainer + "/tmp");
    }
    constexpr auto& kSdk = VTPlugInCore::kSdkDirectoryVariable;
    if (const char* sdk = std::getenv(kSdk)) made.set(kSdk, sdk);
    if (own == nullptr) return std::move(made).build();
    std::string others;
    for (const value::Dictionary::Entry& entry : *own) {
        if (entry.value.string() != nullptr) {
            made.set(entry.key, entry.value);
        } else {
            others += (others.empty() ? "" : ", ") + entry.key;
        }
    }
    if (!others.empty()) {
        logging::notice(text::format("ignoring environment variables of plug-in {}({}) that are no texts: {}",
                                     plugIn.identifier(), plugIn.version(), others));
    }
    return std::move(made).build();
}

// The executable of the bundle whose directory is open here: a regular file that may be run, and no link, which could
// lead out of the bundle.
std::optional<std::string> executableOf(const VTBundle& bundle, int directory) {
    const auto path = bundle.executablePath();
    if (!path) return {};
    const std::string name = path->substr(path->rfind('/') + 1);
    struct stat status {};
    const bool runs = ::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                      S_ISREG(status.st_mode) && ::faccessat(directory, name.c_str(), X_OK, 0) == 0;
    return runs ? path : std::nullopt;
}

std::size_t infoSize(const dravo::DVApplicationProxy& application) {
    const auto directory = application.openBundle();
    struct stat status {};
    const bool isThere = directory && ::fstatat(directory->get(), bundle::kInfoFile, &status, AT_SYMLINK_NOFOLLOW) == 0;
    return isThere ? static_cast<std::size_t>(std::max<off_t>(status.st_size, 0)) : 0;
}

}  // namespace

std::uint64_t VTDPlugIn::effortToEnable() const {
    std::uint64_t units = effort::kFileOpened + effort::ofParsing(mox::encodedSize(bundleInfoDictionary()));
    const auto around = mayGetOpenAccess(*this) ? dvproxy()->containingBundle() : std::nullopt;
    if (around && around->application)
        units += 2 * effort::kFileOpened + effort::ofParsing(infoSize(*around->application));
    return units;
}

std::optional<value::Error> VTDPlugIn::enableForPid(pid_t pid) const {
    const std::string name = identifier();
    const std::string id = uuid().string();

    const auto dataContainer = dvproxy()->dataContainerPath();
    if (!dataContainer) {
        logging::notice(text::format("no data container for plug-in {}({}) {} at {}", name, version(), id, path()));
    }
    const char* const profile = sandboxProfile(*this);

    const value::Dictionary info = bundleInfoDictionary();
    const value::Dictionary* const ownService = info.dictionary(VTInfoKey::moxService);
    value::Dictionary::Builder service{ownService != nullptr ? *ownService : value::Dictionary{}};
    service.set(
        kEnvironmentKey,
        environment(*this, dataContainer, ownService != nullptr ? ownService->dictionary(kEnvironmentKey) : nullptr));
    service.set(kProfileKey, profile);
    service.set(kOmitParametersKey, true);
    logging::notice(text::format("assigning plug-in {}({}) to {} sandbox", name, version(), profile));

    mox::Dictionary overlay;
    overlay.set(VTInfoKey::moxService, std::move(service).build());
    overlay.set(kPackageTypeKey, kPackageType);

    logging::notice(text::format("enabling pid={} for plug-in {}({}) {} {}", pid, name, version(), id, url()));
    auto directory = dvproxy()->openBundle();
    const int opened = directory ? directory->get() : -1;
    const auto bundle =
        directory ? VTBundle::initWithMoxBundle(bundle::Bundle::openAt(*std::move(directory), url())) : nullptr;
    const auto executable = bundle ? executableOf(*bundle, opened) : std::nullopt;
    if (!executable) {
        return VTErrorWithFormat(VTErrorRequest, "cannot obtain executable path for plug-in {}({})", name, id);
    }
    const int error = services::Manager::shared()->add(pid, {name, uuid()}, *executable, *bundle->bundle(), overlay);
    if (error == 0) return {};
    logging::notice(text::format("mox error {} allowing pid {} to use plug-in {}({}) {} at {}", error, pid, name,
                                 version(), id, path()));
    return VTErrorWithFormat(VTErrorRequest, "unable to enable plug-in {}({}) for pid {}", name, id, pid);
}

std::set<std::string> VTDPlugIn::allowedWexaServices() const {
    std::set<std::string> allowed;
    const auto container = containingUrl();
    if (!container) return allowed;
    const auto around = dvproxy()->containingBundle();
    auto directory =
        around && around->application ? around->application->openBundle() : value::posixError(ENOENT, *container);
    const auto application = directory ? bundle::Bundle::openAt(*std::move(directory), *container) : nullptr;
    if (!application || !application->bundlePath()) {
        logging::notice(text::format("failed to create bundle for {}", path()));
        return allowed;
    }
    application->flushCache();
    const auto entries = consent::informationForBundle(*application);
    if (!entries) {
        logging::notice(text::format("WexaAccessCopyInformationForBundle failed for {}", *container));
        return allowed;
    }
    for (const consent::Entry& entry : *entries) {
        if (entry.granted) allowed.insert(entry.service);
    }
    return allowed;
}
