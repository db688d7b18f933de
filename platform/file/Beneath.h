#pragma once

#include <optional>
#include <string>

#include "platform/file/UniqueFd.h"
#include "platform/value/Error.h"

namespace file {

// Opens with the flags what lies beneath the directory, without following a link anywhere and without leaving it. On a
// kernel that lacks the call for that, component by component. What kind of file it is remains to be checked.
value::Result<UniqueFd> openBeneath(int directory, const std::string& relativePath, int flags);

// The same for an absolute path: what lies there when no link is on the way.
value::Result<UniqueFd> openWithoutLinks(const std::string& path, int flags);

}  // namespace file
