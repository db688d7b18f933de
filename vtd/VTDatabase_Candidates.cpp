#include <bit>
#include <bitset>
#include <charconv>
#include <chrono>
#include <functional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/logging/Log.h"
#include "platform/text/Format.h"
#include "vtd/BundleInfo.h"
#include "vtd/VTDAnnotationStore.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/VTDatabase.h"

// The candidate set of a discovery request. Rules that name identifiers or extension points literally narrow the query
// of the registry; only then does a literal election narrow it further, by a filter that the registry asks before a
// record is built.

namespace {

using Clock = std::chrono::steady_clock;

// How long records are made in one turn, and how often all are gone through for it.
constexpr std::chrono::milliseconds kTurn{10};
constexpr unsigned kMostPasses = 3;

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

std::optional<VTDatabase::PlugIns> VTDatabase::findPlugIns(const rules::Rules& rules, Search& search) {
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
    search.isOver = !proxies;
    if (!proxies) return {};

    const std::size_t begin = std::exchange(search.next, 0);
    const auto deadline = Clock::now() + kTurn;
    bool mayMake = true;
    std::size_t leftOut = 0;
    PlugIns candidates;
    candidates.reserve(proxies->size());
    UuidSet seen{proxies->size()};
    Installing isStillInstalling;
    BundleInfo bundleInfo;
    for (std::size_t i = begin; i < proxies->size(); ++i) {
        const auto& proxy = (*proxies)[i];
        if (!proxy->bundlePath() || isStillInstalling(*proxy)) continue;
        if (!mayMake && !VTDPlugIn::initWithImage(proxy)) {
            ++leftOut;
            continue;
        }
        const std::uint64_t before = made_;
        auto plugIn = plugInForProxy(proxy, bundleInfo);
        if (plugIn && seen.add(plugIn->uuid())) candidates.push_back(std::move(plugIn));
        if (made_ == before || Clock::now() < deadline) continue;
        if (search.passes < kMostPasses) {
            search.next = i + 1;
            return {};
        }
        mayMake = false;
    }
    // A turn that did not begin with the first only made records. Now those who asked may have them all.
    search.isOver = begin == 0;
    if (!search.isOver) ++search.passes;
    if (leftOut > 0)
        logging::notice(text::format("{} candidates left out: they change faster than they are read", leftOut));
    return search.isOver ? std::optional{std::move(candidates)} : std::nullopt;
}
