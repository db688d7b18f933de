#include "vtd/VTDPlugInHold.h"

#include "platform/mox/Connection.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDPlugIn.h"

namespace {

// What a hold costs, roughly: itself with its entries in the table, and so much for each plug-in. The records are not
// counted: the table has one for each plug-in, however many hold it.
constexpr std::size_t kCost = 1024;
constexpr std::size_t kCostOfPlugIn = 128;

mox::Charge charge(const VTDMoxClient& client, std::size_t plugIns) {
    const auto connection = client.connection();
    return connection ? connection->charge(kCost + plugIns * kCostOfPlugIn) : mox::Charge{};
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
    : client_{client}, charge_{charge(*client, plugIns.size())}, blocked_{plugIns.begin(), plugIns.end()} {}
