#pragma once

#include <string_view>

#include "platform/plist/Plist.h"

namespace plist {

// Reads XML by expat, which is the judge of what is well-formed and the source of errors' line and column.
value::Result<value::Value> readFullXml(std::string_view bytes, const Limits& limits);

}  // namespace plist
