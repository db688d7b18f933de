#pragma once

#include <functional>
#include <string_view>

// The type-identifier hierarchy: Types.plist on the system volume (a type to the type, or the array of types, that it
// conforms to) and, where the machine has it, the MIME hierarchy of the shared MIME database: the files
// mime/subclasses and mime/aliases of the data directories (with a private root those of the machine, /usr/local/share
// and /usr/share). Only what they declare holds; an alias and its type conform to each other. Names compare exactly.
//
// A changed file is read anew; the files are looked at 50 times a second at most, so that asking thousands of times
// costs no system calls.
namespace types {

// Whether A conforms to B: a type conforms to itself and to every type it is declared to conform to, transitively;
// cycles end. Any thread.
bool conforms(std::string_view a, std::string_view b);

// Calls once with each type that this one conforms to, itself first: one walk, where many are to be looked for. The
// texts are valid during the call. Any thread.
void forEachSupertype(std::string_view type, const std::function<void(std::string_view)>& visit);

}  // namespace types
