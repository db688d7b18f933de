#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/file/UniqueFd.h"
#include "platform/value/Error.h"

// Files as the daemon reads and writes them: never blocking on what turns out to be a pipe or a device, never following
// a path out of where it was meant to lead, never leaving half a file behind.
namespace file {

// What tells that a file is the same and unchanged, as far as one stat can tell. Compare two of them.
struct Stamp {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t size = 0;
    std::int64_t modified = 0;  // nanoseconds since 1970
    std::int64_t changed = 0;   // nanoseconds since 1970
    friend bool operator==(const Stamp&, const Stamp&) = default;
};

// Whether both are of one file, changed or not.
inline bool isSameFile(const Stamp& a, const Stamp& b) {
    return a.device == b.device && a.inode == b.inode;
}

// Whether two looks were at one file, of which one is open: its number cannot have been given again meanwhile. For who
// looks only once there is Identity.
inline bool isSameFile(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

Stamp stampOf(const struct stat& status);
std::optional<Stamp> stampOf(const std::string& path);  // follows links; nothing when it cannot be read

// Whether the change time is old enough that a later write must show in the stamp: the clock of a file system ticks
// only every few milliseconds. Ask before reading what the stamp is to stand for; asked later, it would vouch for a
// write that came between.
bool settled(const Stamp& stamp);

// Whether an error number says nothing of the file itself (no descriptor or memory to be had, a disk's or a server's
// trouble, a lease that its holder is to give up first), and may pass: what was known of the file before is then the
// best guess.
bool mayPass(int errorNumber);

struct Contents {
    std::string bytes;
    Stamp stamp;           // taken before the bytes were read: never newer than they are
    bool settled = false;  // of that stamp, at that time
    uid_t owner = 0;
    mode_t mode = 0;
};

// Reads a whole regular file: opened without blocking and checked on the descriptor, so that a pipe, a device or a
// directory is an error and not a hang; larger than `limit` bytes is an error before anything is allocated for it.
// Errors are of the domain "posix"; a missing file is ENOENT, one too large EFBIG, a refused link ELOOP.
enum class FinalLink { followed, refused };  // when the last component of the path is a symbolic link
value::Result<Contents> readRegular(const std::string& path, std::size_t limit, FinalLink link = FinalLink::followed);

// The same for a name below an open directory (O_PATH will do), of which no component may be a link ("..", too, is
// refused, and so is an absolute name).
value::Result<Contents> readRegularBeneath(int directory, const std::string& relativePath, std::size_t limit);

// A descriptor of such a file, open for reading.
value::Result<UniqueFd> openRegularBeneath(int directory, const std::string& relativePath);

// The file that a path stands for: links in the place of its last component are followed, also where the last of them
// leads to what is not there yet. Errors are ELOOP for a circle, EISDIR for a path that names no file.
value::Result<std::string> finalPath(const std::string& path);

// The project's one atomic write: a temporary file in the same directory (exclusive, 0600), write, fsync, close
// checked, rename over, fsync of the directory. After a failure the temporary is gone and the old file untouched; only
// when the fsync of the directory is what failed is the new file in place already, though it might not outlive a power
// cut. A failed fsync is never repeated on the same file. Readers see the old or the new content, never a mixture,
// whenever the process ends; a process killed in mid-write leaves a name that begins with ".tmp-" and the file's own.
//
// A path that is a symbolic link stands for the file it leads to, as it does for the reader: that file is replaced, in
// its own directory, and the link stays. What is there and is no regular file (EISDIR, EINVAL) is never replaced.
[[nodiscard]] std::optional<value::Error> writeAtomically(const std::string& path, std::string_view bytes);

// The same for content that lies about in pieces: the second argument hands each of them, in order, to what it is
// given. Pieces are copied or written before that returns, and never held all at once.
using Take = std::function<void(std::string_view piece)>;
[[nodiscard]] std::optional<value::Error> writeAtomically(const std::string& path,
                                                          const std::function<void(const Take& take)>& content);

// Removes what processes killed in a write of this file have left beside it. Only for who knows that nobody is writing
// it now, since a temporary in use looks the same.
void removeLeftovers(const std::string& path);

// All symbolic links, "." and ".." removed, in one system call that may block for as long as a file system on the way
// likes. Nothing when the path does not exist, holds a NUL byte, is longer than the kernel takes or than 1023 bytes
// once resolved, or leads through one of /proc's links into another process; errno then tells why.
std::optional<std::string> canonicalPath(const std::string& path);

// The same of a path in the directory (both canonical but for the path's own links), as long as nothing on the way lies
// on another mount than the directory does: what others have mounted is not asked. EXDEV when it does.
std::optional<std::string> canonicalPathWithin(const std::string& directory, const std::string& path);

// What a name leads to from an open directory, on the way of that function and under its conditions (O_PATH); without a
// descriptor, errno tells why. And where what is open lies by now, canonical.
UniqueFd openWithin(int directory, const std::string& directoryPath, const std::string& name);
std::optional<std::string> pathOf(const UniqueFd& opened);

// The same as canonicalPath() where the kernel has all of it at hand and no link is on the way, so that it neither
// blocks nor takes time; else nothing, and errno mostly is EAGAIN.
std::optional<std::string> canonicalPathAtHand(const std::string& path);

// Makes the directory and those above it, each new one with the mode (less the umask); an existing directory is fine.
// Synced: it outlasts a loss of power, as far as the directories above it can be synced.
enum class Durability : std::uint8_t { buffered, synced };
[[nodiscard]] std::optional<value::Error> makeDirectories(const std::string& path, mode_t mode,
                                                          Durability durability = Durability::buffered);

// Who besides this user could put other files in the place of those in the directory: a text for people. Nothing when
// nobody can but the administrator, or there is no such directory.
std::optional<std::string> exposureOf(const std::string& directory);

// A file name made of a text from outside (an identifier, a version): separators, "@", "%", control characters, leading
// dots and bytes that are no UTF-8 are percent-encoded, what would grow beyond the longest is cut and ends in "%~" and
// a hash of the whole text, and the empty text is "%empty". Different texts give different names. Never empty, never
// "." or "..", and without "@", so that it may separate two such names. The default leaves room for a suffix in the 255
// bytes that a file name may have; several texts in one name share them (each needs more than 70).
std::string encodedName(std::string_view text, std::size_t longest = 200);

}  // namespace file
