#pragma once

#include <string>
#include <vector>

#include "platform/bundle/Bundle.h"
#include "platform/value/Error.h"

// Wexa, the privacy-consent database: which services the user granted to which application. `consent.plist` in the
// state directory maps bundle identifiers to lists of {"service": string, "granted": boolean}.
namespace consent {

// The right of a keyboard to talk to more than the application it types for.
inline constexpr char kKeyboardNetworkService[] = "WexaServiceKeyboardNetwork";

struct Entry {
    std::string service;
    bool granted = false;  // only by the boolean: no number and no text grants anything
    friend bool operator==(const Entry&, const Entry&) = default;
};

// The entries of the bundle, by its identifier; none when there is no file or no such identifier. Elements that name no
// service are passed over. An error when the file cannot be read or is no such dictionary, or when the bundle has no
// identifier. A file that has not changed is not read again. Any thread.
value::Result<std::vector<Entry>> informationForBundle(const bundle::Bundle& bundle);

}  // namespace consent
