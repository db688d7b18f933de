#pragma once

#include <optional>
#include <string>

#include "platform/sandbox/Sandbox.h"

// Issues a token that lets the process that consumes it (VTSandboxExtension) read the path. Nothing when the platform
// refuses; errno then says why and is left as it is for the caller's message. For the daemon's process, which has the
// key; not in the library that hosts link.
std::optional<std::string> VTIssueReadExtension(const std::string& url);

// The same for a name beneath a directory ("." is the directory itself) that is open here and lies at the canonical
// path: a token never leads out of that very directory, whatever lies at the path by now.
std::optional<std::string> VTIssueReadExtension(const file::UniqueFd& directory, const std::string& path,
                                                const std::string& name);

// The same for what lies at the canonical path and has this identity, as the caller knows it. Nothing is looked at: the
// token is refused when it is consumed if another file is there by then.
std::optional<std::string> VTIssueReadExtension(const std::string& url, const file::Identity& identity);
