#pragma once

#include <optional>
#include <string_view>

#include "platform/plist/Plist.h"

namespace plist {

// Reads the XML that programs write: UTF-8, no comments, declarations of types, attributes or character references, and
// no errors. Nothing for all else, good or bad, which is the full reader's to judge. What is read here the full reader
// would read as the same value; it only takes three times as long about it.
std::optional<value::Value> readPlainXml(std::string_view bytes, const Limits& limits);

}  // namespace plist
