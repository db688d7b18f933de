#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/file/UniqueFd.h"
#include "platform/value/Error.h"

namespace file {

// Whether the path lies in the directory, at whatever depth; the directory itself does not. By their texts: both are
// canonical, or lead nowhere else for another reason. "/a.app2" is not beneath "/a.app", and everything is beneath "/".
bool isBeneath(std::string_view path, std::string_view directory);

// Such a path as a name from the directory; empty when it does not lie there.
std::string nameBeneath(std::string_view path, std::string_view directory);

// Opens with the flags what lies beneath the directory, without following a link anywhere and without leaving it. On a
// kernel that lacks the call for that, component by component. What kind of file it is remains to be checked.
value::Result<UniqueFd> openBeneath(int directory, const std::string& relativePath, int flags);

// The same for an absolute path: what lies there when no link is on the way.
value::Result<UniqueFd> openWithoutLinks(const std::string& path, int flags);

}  // namespace file
