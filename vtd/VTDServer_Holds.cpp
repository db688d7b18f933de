#include <span>
#include <utility>
#include <vector>

#include "vtd/ChangeNotice.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/VTDPlugInHold.h"
#include "vtd/VTDServer.h"

namespace {

constexpr std::size_t kReleasedAtOnce = 64;  // of one client's holds; the rest in parts of as many

}  // namespace

// A dead client's holds, until all are gone; `done` is what is to come behind them.
struct VTDServer::Release {
    Release(std::shared_ptr<VTDHoldTable::OfClient> givenUp, pid_t client, queue::SerialQueue::Work then)
        : holds{std::move(givenUp)}, pid{client}, done{std::move(then)} {}

    const std::shared_ptr<VTDHoldTable::OfClient> holds;  // shrinks on syncQueue
    const pid_t pid;
    const queue::SerialQueue::Work done;
};

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
    if (added) postAnnotationChange(1);
    return added;
}

// What is removed goes only after the queue has been left: records take their time to be destroyed.

void VTDServer::unholdToken(const value::Uuid& token) {
    unholdTokens({&token, 1});
}

void VTDServer::unholdTokens(std::span<const value::Uuid> tokens) {
    auto removed = syncQueue_->sync([&] {
        std::vector<VTDHoldTable::Hold> holds;
        // The last first, which sayReleased() takes from the end.
        for (auto token = tokens.rbegin(); token != tokens.rend(); ++token) {
            if (auto hold = holds_.remove(*token)) holds.push_back(std::move(hold));
        }
        holdCount_.store(holds_.size());
        if (!holds.empty()) postAnnotationChange(holds.size());
        return holds;
    });
    sayReleased(std::move(removed));
}

// Nobody waits for the lines of a client that had sixty thousand.
void VTDServer::sayReleased(std::vector<VTDHoldTable::Hold> holds) {
    for (std::size_t part = 0; part < kReleasedAtOnce && !holds.empty(); ++part) {
        log("releasing plug-in hold {} at client's request", holds.back()->uuid().string());
        holds.pop_back();
    }
    if (holds.empty()) return;
    releaseQueue_->async(
        [self = shared_from_this(), this, holds = std::move(holds)]() mutable { sayReleased(std::move(holds)); });
}

// The table is rid of them in one step. What else each costs, its line in the log, its notification and its memory, is
// spent a part at a time, so that nobody waits for a client that had two hundred thousand.
void VTDServer::unholdClient(VTDMoxClient& client, queue::SerialQueue::Work done) {
    auto released = syncQueue_->sync([&] {
        client.setGaveUpHolds();
        auto givenUp = holds_.giveUp(client);
        holdCount_.store(holds_.size());
        return givenUp;
    });
    if (!released) return done();
    releasePart(std::make_shared<Release>(std::move(released), client.pid(), std::move(done)));
}

void VTDServer::releasePart(std::shared_ptr<Release> release) {
    const auto holds = syncQueue_->sync([&] { return holds_.forget(*release->holds, kReleasedAtOnce); });
    for (const auto& hold : holds) {
        log("releasing plug-in hold {} for dead client pid {}", hold->uuid().string(), release->pid);
    }
    syncQueue_->sync([&] { postAnnotationChange(holds.size()); });
    if (release->holds->size() == 0) return release->done();
    releaseQueue_->async([self = shared_from_this(), this, release = std::move(release)] { releasePart(release); });
}
