#pragma once

#include <string_view>

// The type-identifier hierarchy: Types.plist on the system volume (type to the types it conforms to) and, where the
// machine has it, the MIME hierarchy of the shared MIME database. Changed files are read anew.
namespace types {

// Whether A conforms to B: a type conforms to itself and to every type it is declared to conform to, transitively. Any
// thread.
bool conforms(std::string_view a, std::string_view b);

}  // namespace types
