#pragma once

#include <chrono>
#include <string>

#include "platform/file/UniqueFd.h"
#include "platform/value/Error.h"

namespace lock {

// An exclusive lock that lies beside what it guards, held for as long as this object lives; the kernel lets go of it
// when the process ends in any way. Two objects of one process exclude each other, too. The file stays behind: removing
// it would let a second holder in through a new file of that name while the first still has the old one.
class LockFile {
public:
    // Takes the lock, or says at once why not. The file is made when missing (0600) and tells other takers the pid of
    // the holder; where nothing can be written one that is there is locked all the same. Errors are of the domain
    // "posix"; a lock that somebody holds is EWOULDBLOCK, and the message names the holder.
    static value::Result<LockFile> take(const std::string& path);

    // The same, but waits so long for somebody to let go: for locks that are held for moments.
    static value::Result<LockFile> takeWithin(const std::string& path, std::chrono::milliseconds patience);

    // Whether the path still leads to the file that is locked. When it does not, somebody else may have another lock of
    // that name: it, or a directory above it, was removed or replaced.
    bool isAt(const std::string& path) const;

private:
    explicit LockFile(file::UniqueFd descriptor) : descriptor_{std::move(descriptor)} {}

    file::UniqueFd descriptor_;
};

}  // namespace lock
