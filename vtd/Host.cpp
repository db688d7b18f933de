#include "vtd/Host.h"

#include <map>
#include <utility>

#include "platform/logging/Log.h"
#include "platform/mox/PeerProgram.h"
#include "platform/text/Format.h"

namespace {

std::shared_ptr<VTBundle> bundleOf(const mox::PeerIdentity& peer) {
    return peer.program && peer.program->bundle ? VTBundle::initWithMoxBundle(peer.program->bundle) : nullptr;
}

}  // namespace

// What restricts a host may be five thousand patterns, and a host may connect four hundred times.
class Host::Restrictions {
public:
    static Restrictions& shared() {
        static Restrictions& restrictions = *new Restrictions;  // queues may still ask while the process ends
        return restrictions;
    }

    std::shared_ptr<const Restriction> of(const std::shared_ptr<const mox::PeerProgram>& program,
                                          const value::Dictionary* allowed) {
        const std::lock_guard lock{mutex_};
        std::erase_if(byProgram_, [](const auto& known) { return known.first.expired(); });
        std::weak_ptr<const Restriction>& known = byProgram_[program];
        if (auto restriction = known.lock()) return restriction;
        auto read = std::make_shared<Restriction>();
        if (allowed != nullptr) read->allowed.emplace(*allowed);
        known = read;
        return read;
    }

private:
    std::mutex mutex_;
    std::map<std::weak_ptr<const mox::PeerProgram>, std::weak_ptr<const Restriction>, std::owner_less<>> byProgram_;
};

Host::Host(std::shared_ptr<const mox::PeerIdentity> identity)
    : identity_{std::move(identity)}, bundle_{bundleOf(*identity_)}, task_{identity_} {}

Host::~Host() = default;

std::optional<value::Value> Host::entitlementValueForKey(std::string_view key) const {
    auto value = task_.value(key);
    if (!value) {
        logging::notice(text::format("error retrieving entitlements for pid {}", pid()));
        return {};
    }
    return *std::move(value);
}

bool Host::hasEntitlement(std::string_view key) const {
    const auto value = entitlementValueForKey(key);
    return value && *value != value::Value{false};
}

const Host::Restriction* Host::restriction() const {
    std::call_once(restrictionRead_, [this] {
        const auto entitlement = entitlementValueForKey(kAllowedPlugInsEntitlement);
        if (entitlement) restriction_ = Restrictions::shared().of(identity_->program, entitlement->dictionary());
    });
    return restriction_.get();
}
