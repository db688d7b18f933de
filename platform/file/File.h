#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/file/UniqueFd.h"
#include "platform/value/Error.h"

// Files as the daemon reads and writes them: never blocking on what turns out to be a pipe or a device, never following
// a path out of where it was meant to lead, never leaving half a file behind.
namespace file {

// What tells that a file is the same and unchanged, as far as one stat can tell. Compare two of them; `settled` says
// whether the change time is old enough that a later write must show (the clock's tick is some milliseconds long).
struct Stamp {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t size = 0;
    std::int64_t modified = 0;  // nanoseconds since 1970
    std::int64_t changed = 0;   // nanoseconds since 1970
    friend bool operator==(const Stamp&, const Stamp&) = default;
};

Stamp stampOf(const struct stat& status);
std::optional<Stamp> stampOf(const std::string& path);  // follows links; nothing when it cannot be read
bool settled(const Stamp& stamp);

struct Contents {
    std::string bytes;
    Stamp stamp;
    uid_t owner = 0;
    mode_t mode = 0;
};

// Reads a whole regular file: opened without blocking and checked on the descriptor, so that a pipe, a device or a
// directory is an error and not a hang; larger than `limit` bytes is an error before anything is allocated for it.
// Errors are of the domain "posix"; a missing file is ENOENT.
value::Result<Contents> readRegular(const std::string& path, std::size_t limit);

// The same for a name below an open directory, of which no component may be a link ("..", too, is refused).
value::Result<Contents> readRegularBeneath(int directory, const std::string& relativePath, std::size_t limit);

// The project's one atomic write: a temporary file in the same directory (exclusive, 0600), write, fsync, close
// checked, rename over, fsync of the directory. After a failure the temporary is gone and the old file untouched; a
// failed fsync is never repeated on the same file. Readers see the old or the new content, never a mixture, whenever
// the process ends.
[[nodiscard]] std::optional<value::Error> writeAtomically(const std::string& path, std::string_view bytes);

// All symbolic links, "." and ".." removed. Nothing when the path does not exist, holds a NUL byte, or is longer than
// 1023 bytes once resolved; errno then tells why.
std::optional<std::string> canonicalPath(const std::string& path);

// Makes the directory and those above it, each new one with the mode; an existing directory is fine.
[[nodiscard]] std::optional<value::Error> makeDirectories(const std::string& path, mode_t mode);

// A file name made of a text from outside (an identifier, a version): separators, "@", "%", control characters and
// leading dots are percent-encoded, and what would grow too long for a file name ends in a hash. Different texts give
// different names. Never empty, never "." or "..".
std::string encodedName(std::string_view text);

}  // namespace file
