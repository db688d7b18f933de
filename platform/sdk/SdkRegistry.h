#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/value/Value.h"

// What extension points register for all their plug-ins: SDKs/<extension point>.plist on the system volume and, before
// it, the file <extension point> in the directory that the environment variable VTTEST_SDK names. Files are kept: one
// stat tells that one is unchanged, a changed one is read anew.
//
// Threading: any thread.
namespace sdk {

// The part that an extension point has in its plug-ins' records, as it is now.
struct Part {
    std::optional<value::Dictionary> dictionary;  // nothing when there is none, or it cannot be read

    // Why one that is there cannot be read, or is no dictionary; the log has one line for each change of the file. What
    // it demands is not known then, and nobody is to decide as if it demanded nothing. What cannot be read in
    // VTTEST_SDK's directory is as good as none there, without a line.
    std::optional<value::Error> fault;

    // Tells one part from another: what was made of one is good for as long as this is the same. 0: there is none.
    std::uint64_t digest = 0;

    bool isStale = false;  // the disk could not be looked at just now: ask again, though nothing may have changed
};

// A name with a separator or a leading dot is registered nowhere.
Part part(const std::string& extensionPoint);

// Where the files lie: the directories whose changes change parts. Either may be missing.
std::vector<std::string> directories();

}  // namespace sdk
