#pragma once

#include <optional>
#include <string>

// The five places that hold everything. With HALVERN_ROOT set they all lie under that one directory (run/ state/
// config/ user/ system/) and the XDG variables and HOME have no say; otherwise they are the XDG directories with
// "halvern/" appended and /usr/share/halvern for the system volume. No path ends in a separator.
namespace paths {

struct Directories {
    std::string runtime;       // sockets, locks, notification counters: gone after a restart of the machine
    std::string state;         // what must survive: the registry store, the annotation file, data containers
    std::string config;        // what people change by hand: preferences, restrictions
    std::string userVolume;    // Applications/ of the user
    std::string systemVolume;  // Applications/, PlugIns/, SDKs/, Types.plist of the system
    bool privateRoot = false;  // HALVERN_ROOT is in force: "owned by root" relaxes to "owned by me"
};

// Why the environment names no usable directories, for programs to say before they use any; nothing when it does. A
// HALVERN_ROOT that is not absolute is refused: it would mean another place wherever the program is started.
std::optional<std::string> misconfiguration();

// Read from the environment at the first call and kept. Any thread.
const Directories& directories();

// The same, read from the environment anew: for tests that set it up.
Directories readDirectories();

// For tests that run several worlds in one process: replaces what directories() answers. Not while others read it.
void setDirectories(Directories directories);

}  // namespace paths
