#include "platform/assertions/Assertions.h"
#include "platform/bundle/Bundle.h"
#include "platform/logging/Log.h"
#include "platform/text/Format.h"
#include "vtd/VTDPlugIn.h"

std::optional<value::Dictionary> VTDPlugIn::checkBusy() const {
    const auto bundleIdentifier = bundleInfoText(bundle::kIdentifierKey);
    if (!bundleIdentifier) return {};  // nobody can take an assertion for it
    for (const value::Dictionary& instance : assertions::busyInstances({&*bundleIdentifier, 1})) {
        if (const std::string* const busy = instance.string(assertions::kBundleIdentifierKey)) {
            return value::Dictionary{{assertions::kBundleIdentifierKey, *busy}};
        }
        logging::notice(text::format("grevd reported incomplete bundle for plug-in {}", identifier()));
    }
    return {};
}
