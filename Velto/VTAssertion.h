#pragma once

#include <stdexcept>
#include <string_view>

// A broken invariant: a programming error, or a peer's library that breaks the protocol. Never raised because of what a
// bundle, a file or a request contains.
class VTInternalInconsistency : public std::logic_error {
public:
    using std::logic_error::logic_error;
};

// What a broken invariant of the shared model does. A host must be able to survive it, so the library throws; the
// daemon, whose state can no longer be trusted, says at its start that it wants the process ended.
enum class VTAssertionPolicy { throwException, endProcess };
void VTSetAssertionPolicy(VTAssertionPolicy policy);

// Reports the condition that does not hold and the source unit that found out, as "CONDITION (UNIT)".
[[noreturn]] void VTAssertionFailure(std::string_view condition, std::string_view unit);
