#pragma once

#include <sys/types.h>

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "platform/value/Error.h"
#include "platform/value/Value.h"

// Process assertions: a running instance of a plug-in says that it is busy, so that nobody puts the plug-in on hold
// under it.
//
// An assertion is the file assertions/<bundle identifier>/<pid> of the runtime directory, which says the identifier and
// bears a write lock of its process: of fcntl's first kind, which belongs to the process and to nothing else. It dies
// with the process in any way, and a child neither inherits nor keeps it, as it would the lock of an open file (flock,
// and fcntl's OFD kind), which lives on in every copy of the descriptor.
namespace assertions {

// Under which an instance's dictionary has its bundle identifier.
inline constexpr char kBundleIdentifierKey[] = "ExtensionBundleIdentifier";

inline constexpr std::size_t kLongestIdentifier = 1024;

// Held for as long as it lives, and no longer than the process that took it: a child of a fork has none, and leaves the
// parent's alone; a program that the process executes has none either. Several of one identifier in one process are one
// to others, given back with the last of them. Threading: any thread. Nothing else in the process may open the file:
// closing it lets go of the lock.
class Assertion {
public:
    // An identifier that is empty, longer than kLongestIdentifier, or not UTF-8 is EINVAL. Errors are of the domain
    // "posix" and say what could not be done.
    static value::Result<Assertion> take(const std::string& bundleIdentifier);

    Assertion(Assertion&& other) noexcept;
    Assertion& operator=(Assertion&& other) noexcept;
    ~Assertion();

private:
    explicit Assertion(std::string directory);

    std::string directory_;  // empty once moved from
    pid_t pid_;
};

// The busy instances of these bundle identifiers: one dictionary for each assertion that a living process holds. One
// whose file does not say the identifier under which it lies has no entry for it: it is known incompletely.
//
// What dead processes left is removed. Whatever else lies there (files without a lock of that kind, pipes, directories,
// links) is passed over; at most 4096 entries of a directory are looked at, each of which is charged: what was not
// looked at for want of effort is missing here. Nothing is waited for. Any thread. Where there are no instances it is
// one system call.
std::vector<value::Dictionary> busyInstances(std::span<const std::string> bundleIdentifiers);

}  // namespace assertions
