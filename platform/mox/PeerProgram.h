#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "platform/bundle/Bundle.h"
#include "platform/mox/Charges.h"
#include "platform/mox/PeerIdentity.h"
#include "platform/value/Value.h"

namespace mox {

// What runs in a peer, as far as it is asked of it later. Read once for all connections of the process that there are
// at a time, when the first is made, and charged to the process. Immutable.
struct PeerProgram {
    // Only when what runs there is the very file that the daemon finds at that path, and the peer's pids are the
    // daemon's. Nothing when it cannot be read or does not fit: such a peer has no bundle and no entitlements, and is
    // served.
    std::optional<std::string> executablePath;

    // The bundle of the executable, without properties when it is in none; null without a path.
    std::shared_ptr<const bundle::Bundle> bundle;

    // Those of the bundle, read through the directory in which the running executable lies; or why they count for
    // nothing.
    value::Result<value::Dictionary> entitlements{value::Dictionary{}};

    std::optional<Charge> charge;
};

// Finds out about the program of a process, whose executable was identified before. May block for as long as the
// process likes; whether it still is what it was is to be asked afterwards (isUnchanged).
void lookAt(pid_t pid, const std::optional<FileId>& executable, PeerProgram& program);

// What runs in the processes that are connected. Any thread.
class PeerPrograms {
public:
    static PeerPrograms& shared();

    // Null when the program could not be looked at, because too many others take their time.
    using Found = std::function<void(const std::shared_ptr<const PeerProgram>&)>;

    // The peer's program at once, when it is known; else null, and `found` is called once, on another thread. That may
    // be never, when the peer serves by itself the file system that its program lies on: nothing else waits for it.
    std::shared_ptr<const PeerProgram> find(const PeerIdentity& peer, const std::shared_ptr<Ledger>& ledger,
                                            Found found);

private:
    struct Key {
        ProcessKey process;
        std::optional<FileId> executable;
        friend bool operator<(const Key& a, const Key& b) {
            return std::tie(a.process, a.executable) < std::tie(b.process, b.executable);
        }
    };
    struct Entry {
        std::weak_ptr<const PeerProgram> known;
        std::vector<Found> waiting;  // not empty: it is being looked at
    };

    void finish(const Key& key, std::unique_ptr<PeerProgram> program);
    void forget(const Key& key);

    // The last small ones are kept beyond their connections: a process that connects time and again is not read anew.
    static constexpr std::size_t kRecent = 32;

    std::mutex mutex_;  // guards what follows
    std::map<Key, Entry> entries_;
    std::array<std::shared_ptr<const PeerProgram>, kRecent> recent_;
    std::size_t nextRecent_ = 0;
};

}  // namespace mox
