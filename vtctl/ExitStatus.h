#pragma once

// What vtctl's exit status tells a script; vtctl(1) lists them too.
enum class ExitStatus {
    success = 0,
    errorReply = 1,   // a reply carried an error
    usage = 2,        // the command line, or something it names, is wrong
    unreachable = 7,  // the daemon cannot be reached, or went away
};
