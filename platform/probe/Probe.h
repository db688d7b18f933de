#pragma once

// User-level static probes in the format that tracers read from an executable's ELF notes. Included by the one source
// that fires a program's probes, not by headers.
//
// The standard macros name a probe and its semaphore by the same identifier. A program whose probes have names that are
// no identifiers ("client-new") defines, for its provider and for each probe, the text that goes into the note:
//
//     #define PROBE_TEXT_vtd "vtd"
//     #define PROBE_TEXT_client_new "client-new"
//     PROBE_SEMAPHORE(vtd, client_new);
//     PROBE1(vtd, client_new, pid);  // as `client-new`
//
// The semaphore is raised by a tracer for as long as it listens, by writing to the process's memory.

#define _SDT_HAS_SEMAPHORES 1  // NOLINT(bugprone-reserved-identifier): the header's own switch
#include <sys/sdt.h>

// The header turns provider and name into texts through this macro alone, while the semaphore's symbol is pasted from
// the identifiers; so the texts can be replaced here without touching the rest of the note.
#undef _SDT_ASM_STRING
#define _SDT_ASM_STRING(identifier) PROBE_STRING(PROBE_TEXT_##identifier)  // NOLINT(bugprone-reserved-identifier)
#define PROBE_STRING(text) _SDT_ASM_1(.asciz text)

// Defines the semaphore that a header has declared `extern "C"` under the name PROVIDER_NAME_semaphore.
#define PROBE_SEMAPHORE(provider, name) \
    volatile unsigned short provider##_##name##_semaphore __attribute__((section(".probes"), used)) = 0

// Fires a probe with one or two arguments: integers and pointers to NUL-terminated texts.
#define PROBE1(provider, name, first) STAP_PROBE1(provider, name, first)
#define PROBE2(provider, name, first, second) STAP_PROBE2(provider, name, first, second)
