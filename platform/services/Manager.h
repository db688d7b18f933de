#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/bundle/Bundle.h"
#include "platform/file/UniqueFd.h"
#include "platform/mox/Dictionary.h"
#include "platform/queue/Reactor.h"
#include "platform/queue/SerialQueue.h"
#include "platform/services/Registration.h"

namespace services {

// Bounds on what processes may have registered; more is EDQUOT.
inline constexpr std::size_t kMostRegistrations = 256;  // for one host
inline constexpr std::size_t kMostHosts = 2048;

// The answer to the removal of what was never added.
inline constexpr int kNotRegistered = 3;

// The service manager's registry of external services: which executables may be started for which process, and how. One
// file for each registration,
//
//     DIRECTORY/PID/IDENTIFIER@VERSION.plist
//
// for the program that starts plug-ins (doc/platform.md says how it reads them). A bundle is registered once for a
// host: registering it again replaces. Bundles of the same identifier and version in two places are two registrations,
// the later one's name ending in "@2". A registration goes when it is removed, when its host ends (within moments),
// and, of a host that ended while nobody watched, when the manager is opened; those of hosts that live on are taken
// over.
//
// Ownership: the directory belongs to one manager at a time, so only a process that holds the state directory opens
// one. Threading: every member may be called from any thread, but for the answers' queue; its state belongs to the
// queue "services". Errors: numbers of the system's; nothing that lies in the directory can stop it.
class Manager : public std::enable_shared_from_this<Manager> {
public:
    // This process's, in "services" of the runtime directory; opened at the first call.
    static const std::shared_ptr<Manager>& shared();

    static std::shared_ptr<Manager> open(std::string directory);

    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    // Registers the executable, which must be the one that its bundle names, for the host process; the bundle is opened
    // at its path, unless the caller has it open. 0 when the file is in place, else an error number: ESRCH for a
    // process that has ended, ENOEXEC for another executable, EDQUOT and EFBIG for too much, EINVAL for an overlay that
    // no property list can hold, and whatever the file system said. After an error an earlier registration of the
    // bundle stands as it was.
    [[nodiscard]] int add(pid_t host, const std::string& executable, const mox::Dictionary& overlay);
    [[nodiscard]] int add(pid_t host, const std::string& executable, const bundle::Bundle& bundle,
                          const mox::Dictionary& overlay);

    // What to remove: the registrations, for whatever host, of the bundle at this path, whatever identifier and version
    // it had when it was registered; without a path, of all bundles of this identifier and version.
    struct Service {
        std::string identifier;
        std::string version;
        std::string bundlePath;
    };

    // Answers later, on the queue: 0, kNotRegistered, or the error number of a file that could not be removed.
    using Answer = std::function<void(int result)>;
    void remove(Service service, std::shared_ptr<queue::SerialQueue> queue, Answer answer);

private:
    struct Entry {
        std::string identifier;
        std::string version;
        std::string fileName;
    };
    struct Host {
        std::uint64_t startTime = 0;
        file::UniqueFd process;
        std::unique_ptr<queue::Watch> watch;      // of the descriptor, hence after it
        std::map<std::string, Entry> registered;  // by the path of the bundle
    };

    explicit Manager(std::string directory);

    // On queue_.
    void takeOver();
    void takeOver(pid_t pid, const std::string& directory);
    value::Result<Host*> hostFor(pid_t pid);
    int registerFor(pid_t pid, Host& host, Registration registration);
    int removeNow(const Service& service);
    void endedMaybe(pid_t pid, std::uint64_t startTime);
    void forget(pid_t pid);
    std::string directoryOf(pid_t pid) const;

    const std::string directory_;
    const std::shared_ptr<queue::SerialQueue> queue_ = std::make_shared<queue::SerialQueue>("services");
    std::unordered_map<pid_t, Host> hosts_;  // those that have something registered
};

}  // namespace services
