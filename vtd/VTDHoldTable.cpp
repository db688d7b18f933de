#include "vtd/VTDHoldTable.h"

#include "platform/logging/Invariant.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/VTDPlugInHold.h"

VTDHoldTable::Blocked::Blocked(std::shared_ptr<VTDPlugIn> plugIn, const VTDPlugInHold& hold)
    : record{std::move(plugIn)}, charge{hold.chargeFor(*record)} {}

void VTDHoldTable::add(const Hold& hold) {
    INVARIANT(!byToken_.contains(hold->uuid()));
    auto& client = clients_[hold->client()];
    if (!client) client = std::make_shared<OfClient>();
    VTDPlugInHold::PlugIns shared;
    for (const auto& plugIn : hold->blocked()) {
        Blocked& blocked = blocked_.try_emplace(plugIn->uuid(), plugIn, *hold).first->second;
        if (++client->blocked_[plugIn->uuid()] == 1) ++blocked.clients;
        shared.insert(blocked.record);
    }
    hold->setBlocked(std::move(shared));
    client->holds_.emplace(++added_, hold);
    byToken_.emplace(hold->uuid(), Place{client, added_});
    ++size_;
}

VTDHoldTable::Hold VTDHoldTable::remove(const value::Uuid& token) {
    const auto found = byToken_.find(token);
    if (found == byToken_.end() || found->second.client->isGivenUp_) return nullptr;
    OfClient& client = *found->second.client;
    const auto place = client.holds_.find(found->second.number);
    INVARIANT(place != client.holds_.end());
    Hold hold = std::move(place->second);
    client.holds_.erase(place);
    for (const auto& plugIn : hold->blocked()) {
        const auto count = client.blocked_.find(plugIn->uuid());
        INVARIANT(count != client.blocked_.end());
        if (--count->second > 0) continue;
        client.blocked_.erase(count);
        unblock(plugIn->uuid());
    }
    byToken_.erase(found);
    --size_;
    return hold;
}

bool VTDHoldTable::covers(const VTDPlugIn& plugIn) const {
    return blocked_.contains(plugIn.uuid());
}

void VTDHoldTable::unblock(const value::Uuid& plugIn) {
    const auto blocked = blocked_.find(plugIn);
    INVARIANT(blocked != blocked_.end() && blocked->second.clients > 0);
    if (--blocked->second.clients == 0) blocked_.erase(blocked);
}

std::shared_ptr<VTDHoldTable::OfClient> VTDHoldTable::giveUp(const VTDMoxClient& client) {
    const auto found = clients_.find(client.weak_from_this());
    if (found == clients_.end()) return nullptr;
    std::shared_ptr<OfClient> givenUp = std::move(found->second);
    clients_.erase(found);
    givenUp->isGivenUp_ = true;
    for (const auto& [plugIn, count] : givenUp->blocked_) unblock(plugIn);
    INVARIANT(size_ >= givenUp->size());
    size_ -= givenUp->size();
    INVARIANT(!clients_.empty() || (size_ == 0 && blocked_.empty()));
    return givenUp;
}

std::vector<VTDHoldTable::Hold> VTDHoldTable::forget(OfClient& givenUp, std::size_t most) {
    INVARIANT(givenUp.isGivenUp_);
    std::vector<Hold> forgotten;
    for (auto hold = givenUp.holds_.begin(); hold != givenUp.holds_.end() && forgotten.size() < most;) {
        byToken_.erase(hold->second->uuid());
        forgotten.push_back(std::move(hold->second));
        hold = givenUp.holds_.erase(hold);
    }
    return forgotten;
}
