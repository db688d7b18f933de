#include <string>

#include "Velto/VTInfoKeys.h"
#include "platform/restrictions/Restrictions.h"
#include "platform/text/Format.h"
#include "vtd/VTDAgeRating.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDPlugIn.h"

// Host authorization: whether a host may see and use a plug-in. Every candidate of every discovery passes here, so what
// needs a look at the disk is asked at most once for a request, or for a record.

namespace {

// What names no entitlement is held by nobody.
bool holds(const Host& host, const value::Value& entitlement) {
    const std::string* name = entitlement.string();
    return name != nullptr && host.hasEntitlement(*name);
}

}  // namespace

std::optional<std::string> VTDPlugIn::allowForClient(const VTDMoxClient& client) const {
    rules::Complaints complaints;
    const auto refusal = refusalForHost(client.host(), restrictions::maximumAppsRating(), complaints);
    return refusal ? std::optional{refusal->message()} : std::nullopt;
}

std::optional<VTDPlugIn::HostRefusal> VTDPlugIn::refusalForHost(const Host& host,
                                                                std::optional<std::int64_t> maximumRating,
                                                                rules::Complaints& complaints) const {
    using Cause = HostRefusal::Cause;
    if (const Host::Restriction* restriction = host.restriction()) {
        if (!restriction->allowed) return HostRefusal{Cause::badRestriction};
        const auto* const rule = unmatchedRule(*restriction->allowed, complaints);
        if (rule != nullptr) return HostRefusal{Cause::restriction, rule};
    }
    auto demanded = plugInValue(VTInfoKey::hostEntitlement);
    if (demanded && !holds(host, *demanded)) return HostRefusal{Cause::entitlement, nullptr, std::move(demanded)};
    if (ageRestricted(maximumRating)) return HostRefusal{Cause::ageRating};
    return {};
}

std::string VTDPlugIn::HostRefusal::message() const {
    switch (cause) {
        case Cause::badRestriction: return "invalid host restriction entitlement";
        case Cause::restriction: return "the host's plug-in entitlement does not allow this plug-in";
        case Cause::entitlement: break;
        case Cause::ageRating: return "the containing Application is age restricted";
    }
    return text::format("the host does not have the \"{}\" entitlement", value::description(*demanded));
}

bool VTDPlugIn::ageRestricted() const {
    return ageRestricted(restrictions::maximumAppsRating());
}

bool VTDPlugIn::ageRestricted(std::optional<std::int64_t> maximumRating) const {
    return maximumRating && containerAgeRestriction() > *maximumRating;
}

std::int64_t VTDPlugIn::containerAgeRestriction() const {
    if (const std::int64_t known = containerAgeRestriction_.load(); known != kNotAsked) return known;
    const auto around = dvproxy()->containingBundle();
    const auto application = around ? around->application : nullptr;
    const auto path = application ? application->bundleContainerPath() : std::nullopt;
    std::int64_t rating = kUnknownAgeRating;
    if (path) {
        const auto container = application->openContainer();
        if (!container) return rating;  // exchanged just now: the registry will tell, and another record will ask
        rating = ageRatingInContainer(container->get(), *path);
    }
    containerAgeRestriction_.store(rating);
    return rating;
}
