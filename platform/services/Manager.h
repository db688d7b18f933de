#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "platform/bundle/Bundle.h"
#include "platform/file/UniqueFd.h"
#include "platform/mox/Dictionary.h"
#include "platform/queue/Reactor.h"
#include "platform/queue/SerialQueue.h"
#include "platform/services/Discards.h"
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
// for the program that starts plug-ins (doc/platform.md says how it reads them). A plug-in is registered once for a
// host: registering it again replaces. Plug-ins of one bundle, and of bundles of the same identifier and version in two
// places, are registrations of their own, the later ones' names ending in "@2" and so on. A registration goes when it
// is removed, when its host ends (within moments), and, of a host that ended while nobody watched, when the manager is
// opened; those of hosts that live on are taken over. What could not be removed (the file system is read-only, say) is
// owed: it is tried again whenever something else is done, and each minute.
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

    // Which plug-in of its bundle.
    struct PlugIn {
        std::string identifier;
        value::Uuid uuid;
    };

    // Registers the executable, which must be the one that its opened bundle names, for the host process. 0 when the
    // file is in place, else an error number: ESRCH for a process that has ended, ENOEXEC for another executable,
    // EDQUOT and EFBIG for too much, EINVAL for an overlay that no property list can hold, and whatever the file system
    // said. After an error an earlier registration of the plug-in stands as it was.
    [[nodiscard]] int add(pid_t host, const PlugIn& plugIn, const std::string& executable, const bundle::Bundle& bundle,
                          const mox::Dictionary& overlay);

    // What to remove: the registrations, for whatever host, of the bundle at this path, whatever identifier and version
    // it had when it was registered; without a path, of all bundles of this identifier and version, for which all hosts
    // are walked.
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
        bool isOwed = false;  // removed, but its file is still there
    };
    using Key = std::pair<std::string, value::Uuid>;  // the path of the bundle, and which plug-in of it
    struct Host {
        std::uint64_t startTime = 0;
        file::UniqueFd process;
        std::unique_ptr<queue::Watch> watch;  // of the descriptor, hence after it
        std::map<Key, Entry> registered;
    };
    using Hosts = std::unordered_map<pid_t, Host>;

    explicit Manager(std::string directory);

    // On queue_.
    void takeOver();
    void takeOver(pid_t pid, const std::string& directory);
    value::Result<Host*> hostFor(pid_t pid);
    int registerFor(pid_t pid, Host& host, Registration registration);
    int removeNow(const Service& service);
    int withdraw(pid_t pid, const Service& service);
    int unlinkEntry(pid_t pid, Entry& entry);
    void endedMaybe(pid_t pid, std::uint64_t startTime);
    void forget(pid_t pid);
    void dropDirectory(pid_t pid);
    void owe(pid_t pid);
    void payDebts();
    std::string directoryOf(pid_t pid) const;

    const std::string directory_;
    const std::shared_ptr<Discards> discards_;
    const std::shared_ptr<queue::SerialQueue> queue_ = std::make_shared<queue::SerialQueue>("services");
    Hosts hosts_;                                               // those that have something registered
    std::unordered_map<std::string, std::set<pid_t>> hostsOf_;  // by the path of the bundle that is registered for them
    std::set<pid_t> owed_;                                      // of these something is to be removed yet
    std::unique_ptr<queue::Timer> debtTimer_;
};

}  // namespace services
