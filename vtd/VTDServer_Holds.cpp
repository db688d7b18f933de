#include <span>
#include <utility>
#include <vector>

#include "Velto/VTProtocol.h"
#include "platform/notify/Notify.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/VTDPlugInHold.h"
#include "vtd/VTDServer.h"

namespace {

// One post for each hold that came or went, all of them for the price of one.
void postChange(std::size_t times) {
    if (const auto error = notify::post(VTAnnotationChangeNotification, times)) {
        logging::error(
            text::format("unable to post {}: {}", VTAnnotationChangeNotification, error->localizedDescription()));
    }
}

}  // namespace

bool VTDServer::holdOnPlugIn(const VTDPlugIn& plugIn) const {
    if (holdCount_.load() == 0) return false;
    return syncQueue_->sync([&] { return holds_.covers(plugIn); });
}

bool VTDServer::addHold(const std::shared_ptr<VTDPlugInHold>& hold) {
    const bool added = syncQueue_->sync([&] {
        const auto client = hold->client();
        if (!client || client->gaveUpHolds()) return false;
        holds_.add(hold);
        holdCount_.store(holds_.size());
        return true;
    });
    if (added) postChange(1);
    return added;
}

// In both removals what is removed goes only after the queue has been left: records take their time to be destroyed.

void VTDServer::unholdToken(const value::Uuid& token) {
    unholdTokens({&token, 1});
}

void VTDServer::unholdTokens(std::span<const value::Uuid> tokens) {
    const auto removed = syncQueue_->sync([&] {
        std::vector<VTDHoldTable::Hold> holds;
        for (const value::Uuid& token : tokens) {
            auto hold = holds_.remove(token);
            if (!hold) continue;
            log("releasing plug-in hold {} at client's request", token.string());
            holds.push_back(std::move(hold));
        }
        holdCount_.store(holds_.size());
        if (!holds.empty()) postChange(holds.size());
        return holds;
    });
}

void VTDServer::unholdClient(VTDMoxClient& client) {
    const auto removed = syncQueue_->sync([&] {
        client.setGaveUpHolds();
        auto holds = holds_.removeAllOf(client);
        holdCount_.store(holds_.size());
        for (const auto& hold : holds) {
            log("releasing plug-in hold {} for dead client pid {}", hold->uuid().string(), client.pid());
        }
        if (!holds.empty()) postChange(holds.size());
        return holds;
    });
}
