#include "vtd/VTDPlugInHold.h"

#include "platform/mox/Connection.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDPlugIn.h"

namespace {

// What a hold costs, roughly: itself with its entries in the table, and so much for each plug-in. The table has one
// record of each plug-in, however many hold it, and charges it by itself.
constexpr std::size_t kCost = 1024;
constexpr std::size_t kCostOfPlugIn = 128;

mox::Charge charge(const VTDMoxClient& client, std::size_t bytes) {
    const auto connection = client.connection();
    return connection ? connection->charge(bytes) : mox::Charge{};
}

}  // namespace

std::size_t VTDPlugInHold::Hash::operator()(const std::shared_ptr<VTDPlugIn>& plugIn) const {
    return plugIn->hash();
}

bool VTDPlugInHold::Equal::operator()(const std::shared_ptr<VTDPlugIn>& a, const std::shared_ptr<VTDPlugIn>& b) const {
    return *a == *b;
}

VTDPlugInHold::VTDPlugInHold(const std::vector<std::shared_ptr<VTDPlugIn>>& plugIns,
                             const std::shared_ptr<VTDMoxClient>& client)
    : client_{client},
      charge_{charge(*client, kCost + plugIns.size() * kCostOfPlugIn)},
      blocked_{plugIns.begin(), plugIns.end()} {}

mox::Charge VTDPlugInHold::chargeFor(const VTDPlugIn& plugIn) const {
    const auto owner = client();
    return owner ? charge(*owner, plugIn.encodedBundleInfoSize()) : mox::Charge{};
}
