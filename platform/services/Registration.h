#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/value/Uuid.h"
#include "platform/value/Value.h"

namespace services {

inline constexpr std::size_t kMostBytes = std::size_t{256} << 10;  // of one registration: they may lie in memory
inline constexpr char kFileSuffix[] = ".plist";

// What the file of one registration says: that this process may have this executable started for it, and how.
struct Registration {
    pid_t host = 0;
    std::uint64_t startTime = 0;  // of the host, in clock ticks since boot
    std::string boot;             // which boot that was: bootIdentifier()
    std::string executable;       // directly in its bundle
    std::string identifier;       // of the bundle, and may be empty
    std::string version;          // likewise
    std::string plugIn;           // the plug-in's own identifier: one bundle may hold many
    value::Uuid uuid;             // the plug-in's; what hosts name it by
    value::Dictionary overlay;
};

// The directory of the executable's bundle.
std::string bundlePathOf(const Registration& registration);

// The running boot of this machine, which start times count from; empty where the system does not tell.
const std::string& bootIdentifier();

// The file's name: identifier and version, each encoded; from the second registration of the same ones on its number
// follows.
std::string fileName(const Registration& registration, std::size_t number);

// The file's content, and back. An error tells what no property list can hold (domain "plist"), or EFBIG; nothing comes
// back of what is no registration.
value::Result<std::string> encode(const Registration& registration);
std::optional<Registration> decode(std::string_view bytes);

}  // namespace services
