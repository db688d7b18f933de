#include <algorithm>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Velto/VTProtocol.h"
#include "Velto/VTValueHelpers.h"
#include "platform/bundle/Bundle.h"
#include "platform/text/Format.h"
#include "vtd/Transaction.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/VTDPlugInHold.h"
#include "vtd/VTDServer.h"

namespace {

// The plug-ins of a hold, each once and in the order of being named: a request of a megabyte can name the same large
// application many thousand times.
class Chosen {
public:
    using PlugIn = std::shared_ptr<VTDPlugIn>;

    bool isNewPath(const std::string& path) { return paths_.insert(path).second; }
    void add(const PlugIn& plugIn) {
        if (seen_.insert(plugIn).second) plugIns_.push_back(plugIn);
    }
    const std::vector<PlugIn>& plugIns() const { return plugIns_; }

private:
    std::unordered_set<std::string> paths_;
    VTDPlugInHold::PlugIns seen_;
    std::vector<PlugIn> plugIns_;
};

struct BusyPlugIns {
    std::vector<std::shared_ptr<VTDPlugIn>> plugIns;
    value::Array::Storage conflicts;

    std::string description() const {
        std::string text;
        for (const auto& plugIn : plugIns) text += (text.empty() ? "" : ", ") + plugIn->identifier();
        return "(" + text + ")";
    }
};

// The plug-ins of one bundle are busy together: it is looked at once.
BusyPlugIns busyAmong(const std::vector<std::shared_ptr<VTDPlugIn>>& plugIns) {
    BusyPlugIns busy;
    std::unordered_map<std::string, std::optional<value::Dictionary>> known;
    for (const auto& plugIn : plugIns) {
        const auto [at, isNew] =
            known.try_emplace(plugIn->bundleInfoText(bundle::kIdentifierKey).value_or(std::string{}));
        if (isNew) at->second = plugIn->checkBusy();
        if (!at->second) continue;
        busy.plugIns.push_back(plugIn);
        busy.conflicts.emplace_back(*at->second);
    }
    return busy;
}

}  // namespace

void Transaction::lockDownPlugIns() {
    if (const auto tokens = mox_dictionary_get_array(request(), VTKey::uuids)) return releaseHolds(*tokens);

    const auto flagsValue = request().find(VTKey::flags);
    const std::uint64_t flags = flagsValue ? flagsValue->unsignedInteger().value_or(0) : 0;
    Chosen chosen;
    const bool all = marshalPaths([&](const std::string& path, bool resolved) {
        if (!resolved) {
            fail(VTErrorPath, text::format("invalid path: {}", path));
            return false;
        }
        if (flags == VTHoldPlugIn) {
            if (!chosen.isNewPath(path)) return true;
            const auto plugIn = server()->findPlugInAtPath(path);
            if (!plugIn) {
                fail(VTErrorPath, text::format("no plug-in at path:{}", path));
                return false;
            }
            chosen.add(plugIn);
        } else if (flags == VTHoldApplication) {
            if (!chosen.isNewPath(path)) return true;
            const auto within = server()->plugInsWithinApplication(path);
            if (within) std::for_each(within->begin(), within->end(), [&](const auto& plugIn) { chosen.add(plugIn); });
        } else {
            fail(VTErrorRequest, "invalid request format (unsupported hold flags)");
            return false;
        }
        return true;
    });
    if (!all) return;

    if (flags != VTHoldPlugIn) {
        BusyPlugIns busy = busyAmong(chosen.plugIns());
        if (!mayGoOn()) return;
        if (!busy.plugIns.empty()) {
            server()->debug("hold rejected. Busy plug-ins:{}", busy);
            reply().set(VTKey::conflicts, value::Array{std::move(busy.conflicts)});
            return fail(VTErrorBusy, "plug-ins are busy");
        }
    }
    const auto hold = std::make_shared<VTDPlugInHold>(chosen.plugIns(), client());
    if (!server()->addHold(hold)) return;  // the client has died meanwhile: nobody waits for an answer
    reply().set(VTKey::uuids, hold->uuid());
    server()->debug("hold request granted uuid:{}", hold->uuid().string());
    done();
}

void Transaction::releaseHolds(mox::View tokens) {
    std::vector<value::Uuid> named;
    std::unordered_set<value::Uuid> known;
    tokens.forEachElement([&](mox::View element) {
        const auto token = element.uuid();
        if (token && known.insert(*token).second) named.push_back(*token);
    });
    server()->unholdTokens(named);
    done();
}
