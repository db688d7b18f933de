#include "platform/dravo/registrar/Remembered.h"

#include <unordered_map>
#include <utility>

#include "platform/dravo/scan/Scanner.h"
#include "platform/file/Beneath.h"

namespace dravo {

std::shared_ptr<const Snapshot> remembered(Store::Contents&& contents,
                                           const std::shared_ptr<Surroundings>& surroundings, SdkParts& sdks) {
    std::unordered_map<std::string, std::shared_ptr<const ApplicationRecord>> applications;
    Snapshot::Applications allApplications;
    for (auto& [path, facts] : contents.applications) {
        allApplications.push_back(std::make_shared<const ApplicationRecord>(path, std::move(facts)));
        applications.emplace(path, allApplications.back());
    }
    const std::string system = installationRoots().back().volume;
    Snapshot::Bundles bundles;
    bundles.reserve(contents.bundles.size());
    for (auto& [path, facts] : contents.bundles) {
        BundlePlace place{path, file::isBeneath(path, system), nullptr};
        for (std::size_t end = path.rfind(".app/"); end != std::string::npos && end > 0 && !place.application;
             end = path.rfind(".app/", end - 1)) {
            const auto found = applications.find(path.substr(0, end + 4));
            if (found != applications.end()) place.application = found->second;
        }
        bundles.push_back(std::make_shared<const BundleRecord>(std::move(place), std::move(facts), surroundings));
    }
    return std::make_shared<const Snapshot>(std::move(allApplications), std::move(bundles), sdks);
}

}  // namespace dravo
