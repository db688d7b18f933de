#pragma once

#include <sys/stat.h>

#include <mutex>
#include <string>

// What taking assertions and looking for them have in common.
namespace assertions {

// Where the assertions of an identifier lie.
std::string directoryOf(const std::string& bundleIdentifier);

// A process that closes a file loses its locks on it, whichever descriptor they were taken on. So while this lock is
// held nobody takes an assertion or gives one back, and a file may be opened that isOwn() says is none of ours.
std::unique_lock<std::mutex> lockOwnFiles();
bool isOwn(const struct stat& status);  // with the lock held

}  // namespace assertions
