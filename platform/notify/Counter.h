#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/file/UniqueFd.h"
#include "platform/value/Error.h"

// The counter file of one notification: twenty decimal digits and a newline. It is written by a plain write, since a
// mapped one wakes no watcher, and under the file's lock, so that no two posts raise it as one.
namespace notify {

// notify/ in the runtime directory.
std::string counterDirectory();
std::string counterFileName(const std::string& notification);

// Opens the counter, making it and its directory when they are not there.
value::Result<file::UniqueFd> openCounter(const std::string& notification);

// Raises it by so many posts. The file may be deleted or replaced at any time: what counts is the one that the name
// leads to. While another process has the lock, so many attempts are made, a fraction of a millisecond apart; then the
// error is EWOULDBLOCK.
[[nodiscard]] std::optional<value::Error> raiseCounter(const std::string& notification, std::uint64_t posts,
                                                       int attempts);

// What it says; 0 for a new one, nothing for content that is none of ours. Takes no lock, so that a process stopped in
// its post stops no reader.
std::optional<std::uint64_t> readCounter(int fd);

}  // namespace notify
