#include <charconv>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "platform/logging/Log.h"
#include "platform/text/Alphanumeric.h"
#include "vtd/VTDAnnotationStore.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/VTDatabase.h"

// The candidate set of a discovery request. Rules that name identifiers or extension points literally narrow the query
// of the registry; only then does a literal election narrow it further, by a filter that the registry asks before a
// record is built.

namespace {

using LiteralList = std::vector<std::string>;

// The plain text that a pattern stands for: behind "=", or any text that begins with a letter or a digit, and so with
// no operator.
std::optional<std::string_view> literalText(const value::Value& pattern) {
    const std::string* text = pattern.string();
    if (text == nullptr || text->empty()) return {};
    if (text->front() == '=') return std::string_view{*text}.substr(1);
    if (text::beginsAlphanumeric(*text)) return *text;
    return {};
}

std::optional<LiteralList> literalList(const value::Dictionary& rules, std::string_view name) {
    const value::Value* pattern = rules.find(name);
    if (pattern == nullptr) return {};
    LiteralList list;
    if (const value::Array* elements = pattern->array()) {
        list.reserve(elements->size());
        for (const value::Value& element : *elements) {
            const auto text = literalText(element);
            if (!text) return {};
            list.emplace_back(*text);
        }
        return list;
    }
    const auto text = literalText(*pattern);
    if (!text) return {};
    list.emplace_back(*text);
    return list;
}

bool holdsByte(const LiteralList& elections, std::uint8_t election) {
    char digits[3];
    const auto written = std::to_chars(std::begin(digits), std::end(digits), election);
    const std::string_view text{digits, static_cast<std::size_t>(written.ptr - digits)};
    for (const std::string& literal : elections) {
        if (literal == text) return true;
    }
    return false;
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

}  // namespace

std::optional<VTDatabase::PlugIns> VTDatabase::findPlugIns(const std::optional<value::Dictionary>& rules) {
    const value::Dictionary query = rules.value_or(value::Dictionary{});
    const auto elections = literalList(query, "KXUserElection");
    const auto identifiers = literalList(query, "KXExtensionIdentifier");
    const auto extensionPoints = literalList(query, "KXExtensionPointName");

    const auto registry = workspace();
    // Outside the queue, which is safe: the store replaces its table whole, and this reads one whole table or the next.
    const auto passesElection = [&, store = annotations()](const std::string& identifier,
                                                           const value::Dictionary& entitlements) {
        if (!elections) return true;
        const auto annotation = store->annotationForIdentifier(annotationKeyFor(identifier, entitlements));
        const value::Value* election = annotation ? annotation->find("election") : nullptr;
        const std::int64_t value = election != nullptr ? election->integerValue().value_or(0)
                                                       : static_cast<std::int64_t>(isAutoElected(entitlements));
        return holdsByte(*elections, static_cast<std::uint8_t>(value));
    };

    std::optional<dravo::PluginList> proxies;
    if (identifiers || extensionPoints) {
        proxies = registry->plugins(identifiers, extensionPoints, std::nullopt, passesElection);
    }
    if (!proxies) proxies = registry->installedPlugins();
    if (!proxies) return {};

    PlugIns candidates;
    candidates.reserve(proxies->size());
    std::unordered_set<value::Uuid> seen{proxies->size()};
    Installing isStillInstalling;
    for (const auto& proxy : *proxies) {
        if (!proxy->bundlePath() || isStillInstalling(*proxy)) continue;
        auto plugIn = plugInForProxy(proxy);
        if (plugIn && seen.insert(plugIn->uuid()).second) candidates.push_back(std::move(plugIn));
    }
    return candidates;
}
