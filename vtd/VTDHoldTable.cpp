#include "vtd/VTDHoldTable.h"

#include "vtd/VTDMoxClient.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/VTDPlugInHold.h"

VTDHoldTable::Blocked::Blocked(std::shared_ptr<VTDPlugIn> plugIn, const VTDPlugInHold& hold)
    : record{std::move(plugIn)}, charge{hold.chargeFor(*record)} {}

void VTDHoldTable::add(const Hold& hold) {
    VTDPlugInHold::PlugIns shared;
    for (const auto& plugIn : hold->blocked()) {
        Blocked& blocked = blocked_.try_emplace(plugIn->uuid(), plugIn, *hold).first->second;
        ++blocked.holds;
        shared.insert(blocked.record);
    }
    hold->setBlocked(std::move(shared));
    const auto place = byClient_.emplace(std::pair{hold->client().get(), added_++}, hold).first;
    byToken_.emplace(hold->uuid(), place);
}

VTDHoldTable::Hold VTDHoldTable::remove(const value::Uuid& token) {
    const auto found = byToken_.find(token);
    if (found == byToken_.end()) return nullptr;
    Hold hold = found->second->second;
    erase(found->second);
    return hold;
}

std::vector<VTDHoldTable::Hold> VTDHoldTable::removeAllOf(const VTDMoxClient& client) {
    std::vector<Hold> removed;
    auto hold = byClient_.lower_bound({&client, 0});
    while (hold != byClient_.end() && hold->first.first == &client) {
        // One whose client is gone may bear the address of another.
        if (hold->second->client().get() != &client) {
            ++hold;
            continue;
        }
        removed.push_back(hold->second);
        hold = erase(hold);
    }
    return removed;
}

bool VTDHoldTable::covers(const VTDPlugIn& plugIn) const {
    return blocked_.contains(plugIn.uuid());
}

VTDHoldTable::ByClient::iterator VTDHoldTable::erase(ByClient::iterator hold) {
    for (const auto& plugIn : hold->second->blocked()) {
        const auto blocked = blocked_.find(plugIn->uuid());
        if (--blocked->second.holds == 0) blocked_.erase(blocked);
    }
    byToken_.erase(hold->second->uuid());
    return byClient_.erase(hold);
}
