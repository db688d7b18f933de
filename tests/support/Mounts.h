#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>

namespace support {

// A mount namespace of the calling thread's own, and of the threads and processes that it makes from then on: real file
// systems that are small, read-only or broken, which nobody else sees and which go with it. False where the system
// grants none.
inline bool enterMountNamespace() {
    const std::string user = "0 " + std::to_string(::geteuid()) + " 1";
    const std::string group = "0 " + std::to_string(::getegid()) + " 1";
    // A privileged user needs no other one (which a process with a second thread, a sanitizer's, could not become).
    if (::unshare(CLONE_NEWNS) != 0) {
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
        std::ofstream{"/proc/self/uid_map"} << user;
        std::ofstream{"/proc/self/setgroups"} << "deny";
        std::ofstream{"/proc/self/gid_map"} << group;
    }
    return ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

// A mount that goes with the object. It never waits for who still uses what was mounted.
class Mount {
public:
    // A file system of that size, in memory.
    static Mount small(const std::string& at, const std::string& size) {
        return Mount{"tmpfs", at, "tmpfs", 0, "size=" + size};
    }
    // What lies at `from`, under another path.
    static Mount bind(const std::string& from, const std::string& at) { return Mount{from, at, "", MS_BIND, ""}; }

    ~Mount() {
        if (!at_.empty()) ::umount2(at_.c_str(), MNT_DETACH);
    }
    Mount(Mount&& other) noexcept : at_{std::exchange(other.at_, {})} {}
    Mount(const Mount&) = delete;
    Mount& operator=(const Mount&) = delete;

    // Nothing in it may be open for writing.
    void setReadOnly(bool readOnly) const {
        const unsigned long flags = MS_BIND | MS_REMOUNT | (readOnly ? unsigned{MS_RDONLY} : 0U);
        if (::mount(nullptr, at_.c_str(), nullptr, flags, nullptr) != 0) throw std::runtime_error{"remount " + at_};
    }

    // Takes all the space that is left, in a file of its own whose path is answered.
    std::string fill() const {
        std::string ballast = at_ + "/ballast";
        std::ofstream filler{ballast, std::ios::binary};
        while (filler << std::string(4096, 'x') << std::flush) {
        }
        return ballast;
    }

private:
    Mount(const std::string& what, std::string at, const char* type, unsigned long flags, const std::string& options)
        : at_{std::move(at)} {
        if (::mount(what.c_str(), at_.c_str(), type, flags, options.c_str()) != 0)
            throw std::runtime_error{"cannot mount at " + at_};
    }

    std::string at_;
};

}  // namespace support
