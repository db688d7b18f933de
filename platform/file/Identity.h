#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/file/UniqueFd.h"
#include "platform/value/Error.h"

namespace file {

// What tells a file or directory from every other one, also from one that is given its inode number when it is gone:
// the time of its birth and what the file system's handle for it says (which holds a generation that each use of a
// number has anew), as far as the file system has them. Times alone would not do: two directories that are made within
// a few milliseconds have one time of birth. Compare two of them; neither changes while the file lives, nor by a
// restart of the machine, unless the file system numbers everything anew.
struct Identity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t birth = 0;        // nanoseconds since 1970; 0: the file system keeps none
    std::uint64_t generation = 0;  // a digest of the file system's handle; 0: it has none
    bool isKnown() const { return inode != 0; }
    friend bool operator==(const Identity&, const Identity&) = default;
};

// Of what is open here (O_PATH will do). Nothing, with errno set, when the kernel does not say.
std::optional<Identity> identityOf(int descriptor);

// Whether what is open here may still be it, by one system call instead of two: without the handle. For who notices by
// other means, too, that a file has become another.
bool mayBe(const Identity& identity, int descriptor);

// What lies at the absolute path, opened with the flags when it is the very one and no link leads there: the path must
// be canonical. ESTALE when it is another one (or the identity is unknown), ELOOP when there is a link on the way.
value::Result<UniqueFd> openSame(const std::string& path, const Identity& identity, int flags);

// The same for what lies beneath an open directory.
value::Result<UniqueFd> openSameBeneath(int directory, const std::string& relativePath, const Identity& identity,
                                        int flags);

}  // namespace file
