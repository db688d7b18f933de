#pragma once

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
// holds of others.
//
// Ownership: owns its holds; refers to clients by address only, and asks the hold whether that is still its client.
// Threading: none of its own; the server's belongs to its syncQueue.
class VTDHoldTable {
public:
    using Hold = std::shared_ptr<VTDPlugInHold>;

    // From then on the hold has the table's record of each plug-in that others hold, too: the database builds records
    // anew, and a thousand holds must not keep a thousand of them.
    void add(const Hold& hold);

    Hold remove(const value::Uuid& token);                      // null when no hold has it
    std::vector<Hold> removeAllOf(const VTDMoxClient& client);  // in the order in which they were added
    bool covers(const VTDPlugIn& plugIn) const;                 // whether any hold blocks the plug-in
    std::size_t size() const { return byClient_.size(); }

private:
    // By client and, for each, in the order of adding.
    using ByClient = std::map<std::pair<const VTDMoxClient*, std::uint64_t>, Hold>;
    // Once a plug-in is uninstalled its record lives on here alone: whoever was the first to hold it is charged for it.
    struct Blocked {
        Blocked(std::shared_ptr<VTDPlugIn> plugIn, const VTDPlugInHold& hold);

        const std::shared_ptr<VTDPlugIn> record;
        const mox::Charge charge;
        std::size_t holds = 0;
    };

    ByClient::iterator erase(ByClient::iterator hold);

    ByClient byClient_;
    std::uint64_t added_ = 0;
    std::unordered_map<value::Uuid, ByClient::iterator> byToken_;
    std::unordered_map<value::Uuid, Blocked> blocked_;
};
