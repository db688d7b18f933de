#pragma once

#include <memory>
#include <optional>

#include "Velto/VTAtomic.h"
#include "platform/prefs/Preferences.h"
#include "platform/value/Value.h"
#include "vtd/Exclusions.h"

inline constexpr char kUserPrefsDomain[] = "halvern.velto.userprefs";
inline constexpr char kExclusionsKey[] = "exclusions";

// What the user has decided for all hosts: the exclusions, rules of plug-ins that no discovery ever returns. The daemon
// reads them; other programs write them.
//
// Ownership: the server's. Threading: any thread; requests ask on the service queue.
class VTDUserPrefs : public prefs::UserDefaults {
public:
    VTDUserPrefs() { addSuite(kUserPrefsDomain); }

    // The rules dictionaries as they are stored now, or nothing. What is no array of dictionaries excludes nothing, and
    // the log says so once for each change of the preferences.
    std::optional<value::Array> exclusions();

    // The same, ready for use: made anew only when they have changed. Null for none.
    std::shared_ptr<const Exclusions> preparedExclusions();

private:
    VTAtomic<std::shared_ptr<const Exclusions>> prepared_;
};
