#pragma once

#include "platform/logging/Log.h"

// States what holds here whatever peers, files and the system do: that the caller is on this queue, that a count is the
// sum of what was counted, that a list ascends. Where it does not hold the code itself is wrong, and the process stops
// with the condition, as for any internal inconsistency. Checked in all builds but the release, where the condition is
// compiled and never evaluated: it may cost time, and must change nothing.
//
// What an input could break is no invariant but a case to be handled.
namespace logging {
#ifdef NDEBUG
inline constexpr bool kChecksInvariants = false;
#else
inline constexpr bool kChecksInvariants = true;
#endif
}  // namespace logging

#define INVARIANT_TEXT_OF(number) #number
#define INVARIANT_LINE(number) INVARIANT_TEXT_OF(number)
#define INVARIANT(condition)                                                                     \
    do {                                                                                         \
        if (::logging::kChecksInvariants && !(condition)) {                                      \
            ::logging::internalInconsistency(#condition, __FILE__ ":" INVARIANT_LINE(__LINE__)); \
        }                                                                                        \
    } while (false)
