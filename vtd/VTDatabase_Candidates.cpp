#include <bit>
#include <bitset>
#include <charconv>
#include <functional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/logging/Log.h"
#include "vtd/BundleInfo.h"
#include "vtd/VTDAnnotationStore.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/VTDatabase.h"

// The candidate set of a discovery request. Rules that name identifiers or extension points literally narrow the query
// of the registry; only then does a literal election narrow it further, by a filter that the registry asks before a
// record is built.

namespace {

// The low bytes of the elections that a list of texts admits.
std::bitset<256> bytesIn(const std::vector<std::string>& elections) {
    std::bitset<256> bytes;
    for (const std::string& text : elections) {
        unsigned byte = 0;
        const char* const end = text.data() + text.size();
        const auto read = std::from_chars(text.data(), end, byte);
        if (read.ptr == end && read.ec == std::errc{} && byte < bytes.size() && std::to_string(byte) == text) {
            bytes.set(byte);
        }
    }
    return bytes;
}

bool isAutoElected(const value::Dictionary& entitlements) {
    const value::Value* entitlement = entitlements.find(kAutoElectEntitlement);
    return entitlement != nullptr && entitlement->isNumber() && entitlement->booleanValue();
}

// Whether a plug-in's application is still being installed. Asking may cost a look at the disk: plug-ins of one
// application come one after the other, and share the answer.
class Installing {
public:
    bool operator()(const dravo::DVVeltoProxy& proxy) {
        const auto container = proxy.containingBundle();
        if (!container) return false;
        if (!container->application) {
            logging::internalInconsistency("DV reported containingBundle is not an application", "vtd/VTDatabase");
        }
        if (application_ != container->application) {
            application_ = container->application;
            isPlaceholder_ = application_->isPlaceholder();
        }
        return isPlaceholder_;
    }

private:
    std::shared_ptr<const dravo::DVApplicationProxy> application_;
    bool isPlaceholder_ = false;
};

// UUIDs, in one piece of memory: a set of nodes costs more than all else that a candidate needs here.
class UuidSet {
public:
    explicit UuidSet(std::size_t most) : slots_(std::bit_ceil(2 * most + 1)), isUsed_(slots_.size()) {}

    // Whether it was not there; no more than `most` may be added.
    bool add(const value::Uuid& uuid) {
        std::size_t at = std::hash<value::Uuid>{}(uuid) & (slots_.size() - 1);
        for (; isUsed_[at]; at = (at + 1) & (slots_.size() - 1)) {
            if (slots_[at] == uuid) return false;
        }
        slots_[at] = uuid;
        isUsed_[at] = true;
        return true;
    }

private:
    std::vector<value::Uuid> slots_;
    std::vector<bool> isUsed_;
};

}  // namespace

std::optional<VTDatabase::PlugIns> VTDatabase::findPlugIns(const rules::Rules& rules, std::vector<LeftOut>* leftOut) {
    const auto electionTexts = rules.writtenTexts(rules::kElectionAttribute);
    const auto elections = electionTexts ? std::optional{bytesIn(*electionTexts)} : std::nullopt;
    const auto identifiers = rules.plainTexts(rules::kIdentifierAttribute);
    const auto extensionPoints = rules.plainTexts(rules::kPointAttribute);

    const auto registry = workspace();
    // Outside the queue, which is safe: the store replaces its table whole, and this reads one whole table or the next.
    const auto passesElection = [&, store = annotations()](const std::string& identifier,
                                                           const value::Dictionary& entitlements) {
        if (!elections) return true;
        const auto annotation = store->annotationForIdentifier(annotationKeyFor(identifier, entitlements));
        const value::Value* election = annotation ? annotation->find("election") : nullptr;
        const std::int64_t value = election != nullptr ? election->integerValue().value_or(0)
                                                       : static_cast<std::int64_t>(isAutoElected(entitlements));
        return elections->test(static_cast<std::uint8_t>(value));
    };

    std::optional<dravo::PluginList> proxies;
    if (identifiers || extensionPoints) {
        proxies = registry->plugins(identifiers, extensionPoints, std::nullopt, passesElection);
    }
    if (!proxies) proxies = registry->installedPlugins();
    if (!proxies) return {};

    PlugIns candidates;
    candidates.reserve(proxies->size());
    UuidSet seen{proxies->size()};
    Installing isStillInstalling;
    BundleInfo bundleInfo;
    for (const auto& proxy : *proxies) {
        if (!proxy->bundlePath()) continue;
        if (isStillInstalling(*proxy)) {
            if (leftOut != nullptr) leftOut->push_back({proxy, LeftOut::Why::installing, {}});
            continue;
        }
        auto plugIn = plugInForProxy(proxy, bundleInfo);
        if (!plugIn && leftOut != nullptr) leftOut->push_back(refusalOf(proxy));
        if (plugIn && seen.add(plugIn->uuid())) candidates.push_back(std::move(plugIn));
    }
    return candidates;
}

VTDatabase::LeftOut VTDatabase::refusalOf(const std::shared_ptr<const dravo::DVVeltoProxy>& proxy) {
    return _sync()->sync([&] {
        LeftOut leftOut{proxy, LeftOut::Why::refused, {}};
        const auto* const lines = notes_.refusal(proxy);
        if (lines == nullptr) return leftOut;
        for (const auto& line : *lines) leftOut.words += (leftOut.words.empty() ? "" : "\n") + line.text;
        return leftOut;
    });
}
