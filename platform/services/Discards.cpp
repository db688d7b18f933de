#include "platform/services/Discards.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

#include "platform/text/Format.h"

// How it works. Each discarded directory is an entry here. A part removes some of the first entry's files; a directory
// among them becomes an entry itself, so that no depth is ever walked and no path grows.
namespace services {

namespace {

namespace fs = std::filesystem;

constexpr int kPart = 256;  // names; some milliseconds

}  // namespace

Discards::Discards(std::string directory)
    : directory_{std::move(directory)},
      queue_{std::make_shared<queue::SerialQueue>("services.discards", queue::QualityOfService::background)} {}

int Discards::discard(const std::string& path) {
    if (::unlink(path.c_str()) == 0 || ::rmdir(path.c_str()) == 0) return 0;
    const int error = moveAside(path);
    if (error == 0) removeLater();
    return error == ENOENT ? 0 : error;
}

int Discards::moveAside(const std::string& path) {
    for (;;) {
        const std::string aside = text::format("{}/{}", directory_, ++lastNumber_);
        if (::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) == 0) return 0;
        if (errno == EEXIST) continue;  // an earlier run's
        struct stat status {};
        if (errno != ENOENT || ::lstat(path.c_str(), &status) != 0) return errno;
        if (::mkdir(directory_.c_str(), S_IRWXU) != 0 && errno != EEXIST) return errno;
    }
}

void Discards::removeLater() {
    queue_->async([weak = weak_from_this()] {
        const auto self = weak.lock();
        if (self && self->removeSome()) self->removeLater();
    });
}

bool Discards::removeSome() {
    std::error_code error;
    const fs::directory_iterator first{directory_, error};
    if (error || first == fs::directory_iterator{}) {
        ::rmdir(directory_.c_str());
        return false;
    }
    const std::string entry = first->path();
    bool isLess = ::unlink(entry.c_str()) == 0;
    int looked = 0;
    for (fs::directory_iterator at{entry, error}, end; !error && at != end && looked < kPart; at.increment(error)) {
        ++looked;
        const std::string name = at->path();
        isLess = ::unlink(name.c_str()) == 0 || moveAside(name) == 0 || isLess;
    }
    return ::rmdir(entry.c_str()) == 0 || isLess;
}

}  // namespace services
