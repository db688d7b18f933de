#include "platform/plist/KeptFile.h"

#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "platform/digest/Fnv1a.h"

namespace plist {

namespace {

// What one look at the directory entry tells: the stamp of what lies there, an error number, or neither for nothing.
struct Look {
    std::optional<file::Stamp> stamp;
    int error = 0;
};

Look lookAt(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return {{}, errno == ENOENT ? 0 : errno};
    // A link that leads nowhere is not the absence of a file: somebody meant one to be there.
    if (S_ISLNK(status.st_mode) && ::stat(path.c_str(), &status) != 0) return {{}, errno};
    return {file::stampOf(status), 0};
}

bool isMissing(const value::Error& error) {
    return error.domain == "posix" && error.code == ENOENT;
}

bool mayPass(const value::Error& error) {
    return error.domain == "posix" && file::mayPass(static_cast<int>(error.code));
}

}  // namespace

const KeptFile::Reading& KeptFile::read() {
    const Look look = lookAt(path_);
    Load fresh;
    if (look.error != 0) {
        fresh.reading.fault = value::posixError(look.error, "reading " + path_);
    } else if (look.stamp) {
        kept_.reading.news = false;
        if (kept_.settled && kept_.stamp == look.stamp) return kept_.reading;
        fresh = load(look.stamp);
    }
    if (fresh.reading.fault && mayPass(*fresh.reading.fault) && kept_.reading.root) {
        kept_.reading.news = false;
        kept_.reading.stale = true;
        kept_.settled = false;  // look again
        return kept_.reading;
    }
    if (fresh.reading.fault) {
        fresh.reading.digest = digest::fnv1a(fresh.reading.fault->localizedDescription());
        fresh.reading.stale = mayPass(*fresh.reading.fault);
    }
    fresh.reading.news = fresh.stamp != kept_.stamp || fresh.reading.fault != kept_.reading.fault ||
                         fresh.reading.root != kept_.reading.root;
    kept_ = std::move(fresh);
    return kept_.reading;
}

// A file that cannot be read at all is tried again each time: what was in the way (no descriptor, a disk's error) need
// not show in its stamp once it is gone.
KeptFile::Load KeptFile::load(const std::optional<file::Stamp>& seen) const {
    const auto contents = file::readRegular(path_, limits_.bytes);
    if (contents) return decode(*contents);
    Load load;
    if (isMissing(contents.error())) return load;  // it went meanwhile
    load.stamp = seen;
    load.reading.fault = contents.error();
    return load;
}

KeptFile::Load KeptFile::decode(const file::Contents& contents) const {
    Load load;
    load.stamp = contents.stamp;
    load.settled = contents.settled;
    auto list = plist::read(contents.bytes, limits_);
    if (list) {
        load.reading.root = *std::move(list);
        load.reading.digest = digest::fnv1a(contents.bytes);
    } else {
        value::Error fault = list.error();
        fault.message = "reading " + path_ + ": " + fault.localizedDescription();
        load.reading.fault = std::move(fault);
    }
    return load;
}

}  // namespace plist
