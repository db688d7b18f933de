#pragma once

#include <optional>
#include <string>

// Issues a token that lets the process that consumes it (VTSandboxExtension) read the path. Nothing when the platform
// refuses; errno then says why and is left as it is for the caller's message. With a directory to stay within, a path
// that leads out of it once its links are resolved is refused (EXDEV). For the daemon's process, which has the key; not
// in the library that hosts link.
std::optional<std::string> VTIssueReadExtension(const std::string& url, const std::string& within = {});
