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
bool holds(const VTDMoxClient& client, const value::Value& entitlement) {
    const std::string* name = entitlement.string();
    return name != nullptr && client.hasEntitlement(*name);
}

}  // namespace

std::optional<std::string> VTDPlugIn::allowForClient(const VTDMoxClient& client) const {
    rules::Complaints complaints;
    return allowForClient(client, restrictions::maximumAppsRating(), complaints);
}

std::optional<std::string> VTDPlugIn::allowForClient(const VTDMoxClient& client,
                                                     std::optional<std::int64_t> maximumRating,
                                                     rules::Complaints& complaints) const {
    if (const VTDMoxClient::Restriction* restriction = client.restriction()) {
        if (!restriction->allowed) return "invalid host restriction entitlement";
        if (unmatchedRule(*restriction->allowed, complaints) != nullptr) {
            return "the host's plug-in entitlement does not allow this plug-in";
        }
    }
    const auto demanded = plugInValue(VTInfoKey::hostEntitlement);
    if (demanded && !holds(client, *demanded)) {
        return text::format("the host does not have the \"{}\" entitlement", value::description(*demanded));
    }
    if (ageRestricted(maximumRating)) return "the containing Application is age restricted";
    return {};
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
