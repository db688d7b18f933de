#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/mox/Charges.h"
#include "platform/value/Uuid.h"

class VTDMoxClient;
class VTDPlugIn;
class VTDPlugInHold;

// The holds there are, found by token, by client and by plug-in, so that no question and no change costs more with more
// holds of others. A dead client's are given up in one step, however many; what is left of them is then forgotten a
// part at a time.
//
// Ownership: owns its holds; refers to clients weakly.
// Threading: none of its own; the server's belongs to its syncQueue.
class VTDHoldTable {
public:
    using Hold = std::shared_ptr<VTDPlugInHold>;
    class OfClient;

    // From then on the hold has the table's record of each plug-in that others hold, too: the database builds records
    // anew, and a thousand holds must not keep a thousand of them.
    void add(const Hold& hold);

    Hold remove(const value::Uuid& token);       // null when no hold has it
    bool covers(const VTDPlugIn& plugIn) const;  // whether any hold blocks the plug-in

    // Who holds the plug-in, and since when, as far as a bounded look finds it: some of them where there are many.
    struct Holder {
        pid_t pid;  // 0: it is going
        std::chrono::system_clock::time_point since;
    };
    std::vector<Holder> holdersOf(const VTDPlugIn& plugIn) const;

    std::size_t size() const { return size_; }  // without what was given up

    // All that the client holds: from then on it blocks nothing, and its tokens name nothing. Null when it holds
    // nothing.
    std::shared_ptr<OfClient> giveUp(const VTDMoxClient& client);

    // So many of what was given up, in the order in which they were added; none when all are gone. Nobody but who calls
    // has them afterwards.
    std::vector<Hold> forget(OfClient& givenUp, std::size_t most);

private:
    // Once a plug-in is uninstalled its record lives on here alone: whoever was the first to hold it is charged for it.
    struct Blocked {
        Blocked(std::shared_ptr<VTDPlugIn> plugIn, const VTDPlugInHold& hold);

        const std::shared_ptr<VTDPlugIn> record;
        const mox::Charge charge;
        std::size_t clients = 0;  // that hold it
    };
    struct Place {
        std::shared_ptr<OfClient> client;
        std::uint64_t number;
    };

    void unblock(const value::Uuid& plugIn);

    std::map<std::weak_ptr<const VTDMoxClient>, std::shared_ptr<OfClient>, std::owner_less<>> clients_;
    std::unordered_map<value::Uuid, Place> byToken_;
    std::unordered_map<value::Uuid, Blocked> blocked_;
    std::uint64_t added_ = 0;
    std::size_t size_ = 0;
};

// The holds of one client, in the order in which they were added.
class VTDHoldTable::OfClient {
public:
    std::size_t size() const { return holds_.size(); }

private:
    friend class VTDHoldTable;

    bool isGivenUp_ = false;
    std::map<std::uint64_t, Hold> holds_;
    std::unordered_map<value::Uuid, std::size_t> blocked_;  // how many of them block each plug-in
};
