#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include "platform/file/File.h"

namespace file {

std::optional<std::string> canonicalPath(const std::string& path) {
    constexpr std::size_t kLongest = 1023;
    if (path.find('\0') != std::string::npos) {
        errno = EINVAL;
        return {};
    }
    struct Free {
        void operator()(char* text) const { std::free(text); }
    };
    const std::unique_ptr<char, Free> resolved{::realpath(path.c_str(), nullptr)};
    if (!resolved) return {};
    std::string result{resolved.get()};
    if (result.size() > kLongest) {
        errno = ENAMETOOLONG;
        return {};
    }
    return result;
}

std::optional<value::Error> makeDirectories(const std::string& path, mode_t mode) {
    const auto failure = [&](int errorNumber) { return value::posixError(errorNumber, "making directory " + path); };
    if (path.find('\0') != std::string::npos) return failure(EINVAL);
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0) {
        if (!S_ISDIR(status.st_mode)) return failure(ENOTDIR);
        return {};
    }
    // From the top: what exists answers EEXIST, even where nothing may be made.
    for (std::size_t end = 0; end < path.size();) {
        end = std::min(path.find('/', end + 1), path.size());
        if (::mkdir(path.substr(0, end).c_str(), mode) != 0 && errno != EEXIST) return failure(errno);
    }
    if (::stat(path.c_str(), &status) != 0) return failure(errno);
    if (!S_ISDIR(status.st_mode)) return failure(ENOTDIR);
    return {};
}

}  // namespace file
