#pragma once

#include <sys/un.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/file/UniqueFd.h"
#include "platform/lock/LockFile.h"
#include "platform/value/Error.h"

// Where services have their sockets: the runtime directory, which belongs to the user alone. Sockets are bound and
// connected through the opened directory, so that its path may be as long as it likes.
namespace mox {

// With "/proc/self/fd/N/" before it, what an address has room for.
inline constexpr std::size_t kLongestServiceName = 80;

// Whether the text can name a service: a plain file name of no more bytes, without leading dot or control characters.
bool isServiceName(std::string_view name);

// The runtime directory, made if missing. An error when it is not ours alone to write.
value::Result<file::UniqueFd> openRuntimeDirectory();

// The address of a service's socket in the directory, good while the descriptor is open.
sockaddr_un serviceAddress(int directory, const std::string& name);

// A service's listening socket, and the lock that tells others that it is alive. Gone with this object.
class ServiceSocket {
public:
    // The socket that the service manager passed for this name, else one of our own, which takes the place of a dead
    // service's. An error when the service is alive (it names the process) or the socket cannot be made.
    static value::Result<std::unique_ptr<ServiceSocket>> open(const std::string& name);
    ~ServiceSocket();
    ServiceSocket(const ServiceSocket&) = delete;
    ServiceSocket& operator=(const ServiceSocket&) = delete;

    int get() const { return socket_.get(); }

private:
    ServiceSocket(std::string name, file::UniqueFd directory, lock::LockFile lock)
        : name_{std::move(name)}, directory_{std::move(directory)}, lock_{std::move(lock)} {}
    std::optional<value::Error> bind();

    const std::string name_;
    const file::UniqueFd directory_;
    const lock::LockFile lock_;
    file::UniqueFd socket_;
    bool isPassed_ = false;
};

}  // namespace mox
