#pragma once

#include <optional>
#include <string>

// What is mounted where, by the kernel's own list: asked without a system call on the file systems in question, which
// may be such as never answer.
namespace mounts {

// Whether what lies at the canonical path, or beneath it, is up to somebody who may never answer: a file system that a
// process serves, or one behind the network. One that also carries a directory which was configured for this process (a
// volume, its state) is relied on anyway. Follows the list as it changes. Any thread.
bool mayNeverAnswer(const std::string& path);

// file::canonicalPath(), but name by name, and without asking anything of a file system of that kind: ETIMEDOUT where
// the way leads into one. It takes several system calls a name, and does not block. Any thread.
std::optional<std::string> canonicalPathWhereAnswered(const std::string& path);

}  // namespace mounts
